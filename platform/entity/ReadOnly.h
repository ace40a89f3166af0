// Attributes that everybody may read and only the entity itself writes.
//
// VEL_ATTRIBUTE gives a setter to all; what a scheduler or an allocator counts is nobody else's to
// set. VEL_READ_ONLY stands in the table of declarations like the other lines and shows up in
// introspection like them:
//
//    VEL_READ_ONLY( U64, runs )
//
// Inside the class the value is the member `runs_`. VEL_SHOWN adds a member that is no attribute to
// what introspection shows, through a function that knows how.

#pragma once

#include "platform/entity/Entity.h"

/// A plain attribute without a setter. What follows the name is the initial value, in braces.
#define VEL_READ_ONLY( Type, foo, ... )                                                            \
 public:                                                                                           \
   const Type& foo() const {                                                                       \
      return foo##_;                                                                               \
   }                                                                                               \
   void visitLine_( ::Vel::AttributeLine< __LINE__ >, ::Vel::AttributeVisitor& visitor ) const {   \
      visitor.attribute( #foo, ::Vel::attributeValue( foo##_ ) );                                  \
   }                                                                                               \
   VEL_LINE_NAME_( foo )                                                                           \
 private:                                                                                          \
   Type foo##_{ __VA_ARGS__ };

/// Shows the member `foo_` through `visit( visitor, name, foo_ )`.
#define VEL_SHOWN( foo, visit )                                                                    \
 public:                                                                                           \
   VEL_VISIT_( foo, visit )                                                                        \
 private:
