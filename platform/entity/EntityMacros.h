// The declaration lines of an entity. Included by Entity.h; read its head for what they give.
//
//    class MplsHwVrfStatus : public WatchedEntity {
//       VEL_ENTITY( MplsHwVrfStatus )
//       VEL_KEY( VrfId, vrfId )
//       VEL_ATTRIBUTE( bool, mplsRouting, onMplsRouting )
//       VEL_COLLECTION( Hash, Ptr< Mpls::Hardware::L2Adjacency >, U32, l2Adjacency )
//       VEL_VALUES( LabelIndexed, Mpls::RouteKey, MplsHwRoute, routeKey, route, onRoute )
//       VEL_SET( LabelSet, Mpls::RouteKey, unprogrammedRoute, onUnprogrammedRoute )
//       VEL_ENTITY_END
//     public:
//       explicit MplsHwVrfStatus( VrfId vrfId ) : vrfId_( vrfId ) {}
//    };
//
// The last argument, where there is one, is the handler of the nested `Reactor` that hears of a
// change; a collection's handler is given the key. A class that names handlers derives from
// WatchedEntity and declares `Reactor` first.

#pragma once

// clang-format off
#define VEL_ENTITY( Name )                                                                         \
 public:                                                                                           \
   using Self_ = Name;                                                                             \
   static constexpr int firstLine_ = __LINE__;                                                     \
   std::string_view typeName() const override { return #Name; }

#define VEL_ENTITY_END                                                                             \
 public:                                                                                           \
   void visit( ::Vel::AttributeVisitor& visitor ) const override {                                 \
      ::Vel::visitLines< firstLine_ >(                                                             \
         *this, visitor, std::make_integer_sequence< int, __LINE__ - firstLine_ >{} );             \
   }                                                                                               \
   std::string_view attributeName( uint16_t number ) const override {                              \
      return ::Vel::nameOfLine< firstLine_, Self_ >(                                               \
         number, std::make_integer_sequence< int, __LINE__ - firstLine_ >{} );                     \
   }

/// Closes the declaration of a type whose enumeration stands in a source file, as
/// VEL_ENTITY_SOURCE( Name ): for types that many files include, since the enumeration
/// instantiates something for each line.
#define VEL_ENTITY_END_IN_SOURCE                                                                   \
 public:                                                                                           \
   static constexpr int lastLine_ = __LINE__;                                                      \
   void visit( ::Vel::AttributeVisitor& visitor ) const override;                                  \
   std::string_view attributeName( uint16_t number ) const override;

#define VEL_ENTITY_SOURCE( Name )                                                                  \
   void Name::visit( ::Vel::AttributeVisitor& visitor ) const {                                    \
      ::Vel::visitLines< firstLine_ >(                                                             \
         *this, visitor, std::make_integer_sequence< int, lastLine_ - firstLine_ >{} );            \
   }                                                                                               \
   std::string_view Name::attributeName( uint16_t number ) const {                                 \
      return ::Vel::nameOfLine< firstLine_, Name >(                                                \
         number, std::make_integer_sequence< int, lastLine_ - firstLine_ >{} );                    \
   }

/// Closes the declaration of a type derived from another entity type: the base's attributes
/// come first.
#define VEL_ENTITY_END_OVER( Base )                                                                \
 public:                                                                                           \
   void visit( ::Vel::AttributeVisitor& visitor ) const override {                                 \
      Base::visit( visitor );                                                                      \
      ::Vel::visitLines< firstLine_ >(                                                             \
         *this, visitor, std::make_integer_sequence< int, __LINE__ - firstLine_ >{} );             \
   }                                                                                               \
   std::string_view attributeName( uint16_t number ) const override {                              \
      return ::Vel::nameOfLine< firstLine_, Self_ >(                                               \
         number, std::make_integer_sequence< int, __LINE__ - firstLine_ >{} );                     \
   }

// The line's name, and its number within the declaration.
#define VEL_LINE_NAME_( foo )                                                                      \
   static constexpr std::string_view lineName_( ::Vel::AttributeLine< __LINE__ > ) { return #foo; } \
   [[maybe_unused]] static constexpr uint16_t foo##Number_ = __LINE__ - firstLine_;

#define VEL_VISIT_( foo, visit )                                                                   \
   void visitLine_( ::Vel::AttributeLine< __LINE__ >, ::Vel::AttributeVisitor& visitor ) const {   \
      visit( visitor, #foo, foo##_ );                                                              \
   }                                                                                               \
   VEL_LINE_NAME_( foo )

#define VEL_HEAR_( ... )                                                                           \
   __VA_OPT__( this->notify< Reactor >( [ & ]( Reactor & reactor ) { reactor.__VA_ARGS__; } ); )
#define VEL_CALL_( arguments, ... ) __VA_OPT__( VEL_HEAR_( __VA_ARGS__ arguments ) )

/// A constructor argument that names the entity among its siblings.
#define VEL_KEY( Type, foo )                                                                       \
 public:                                                                                           \
   Type const& foo() const { return foo##_; }                                                      \
   std::string name() const override { return ::Vel::textOf( foo##_ ); }                           \
   void visitLine_( ::Vel::AttributeLine< __LINE__ >, ::Vel::AttributeVisitor& visitor ) const {   \
      visitor.attribute( #foo, ::Vel::attributeValue( foo##_ ) );                                  \
   }                                                                                               \
   VEL_LINE_NAME_( foo )                                                                           \
 private:                                                                                          \
   Type foo##_;

/// A plain attribute: `VEL_ATTRIBUTE( Type, foo )`, or with the handler that hears of it.
#define VEL_ATTRIBUTE( Type, foo, ... ) VEL_ATTRIBUTE_DEFAULT( Type, foo, {}, __VA_ARGS__ )

/// A plain attribute with an initial value in braces.
#define VEL_ATTRIBUTE_DEFAULT( Type, foo, initial, ... )                                           \
 public:                                                                                           \
   Type const& foo() const { return foo##_; }                                                      \
   void foo##Is( Type const& value ) {                                                             \
      if ( foo##_ == value ) {                                                                     \
         return;                                                                                   \
      }                                                                                            \
      foo##_ = value;                                                                              \
      VEL_CALL_( (), __VA_ARGS__ )                                                                 \
   }                                                                                               \
   void visitLine_( ::Vel::AttributeLine< __LINE__ >, ::Vel::AttributeVisitor& visitor ) const {   \
      visitor.attribute( #foo, ::Vel::attributeValue( foo##_ ) );                                  \
   }                                                                                               \
   VEL_LINE_NAME_( foo )                                                                           \
 private:                                                                                          \
   Type foo##_ initial;

/// A 64-bit counter.
#define VEL_COUNTER( foo )                                                                         \
   VEL_ATTRIBUTE( uint64_t, foo )                                                                  \
 public:                                                                                           \
   void foo##Inc( uint64_t delta = 1 ) { foo##_ += delta; }

/// A value that follows from the others: the class defines `foo()`, the line makes it readable
/// from outside.
#define VEL_DERIVED( foo )                                                                         \
 public:                                                                                           \
   void visitLine_( ::Vel::AttributeLine< __LINE__ >, ::Vel::AttributeVisitor& visitor ) const {   \
      visitor.attribute( #foo, ::Vel::attributeValue( foo() ) );                                   \
   }                                                                                               \
   VEL_LINE_NAME_( foo )

// What all collections have.
#define VEL_COLLECTION_( Key_, foo, ... )                                                          \
 public:                                                                                           \
   const auto& foo() const { return foo##_; }                                                      \
   auto& foo##Work() { return foo##_; }                                                            \
   bool foo##Has( Key_ const& key ) const { return foo##_.has( key ); }                            \
   size_t foo##s() const { return foo##_.size(); }                                                 \
   bool foo##Del( Key_ key ) {                                                                     \
      if ( !foo##_.erase( key ) ) {                                                                \
         return false;                                                                             \
      }                                                                                            \
      VEL_CALL_( ( key ), __VA_ARGS__ )                                                            \
      return true;                                                                                 \
   }                                                                                               \
   void foo##DelAll() {                                                                            \
      const ::Vel::Ptr< const ::Vel::Entity > keep = this->kept();                                 \
      for ( auto pass = foo##_.pass(); pass.next(); ) {                                            \
         foo##Del( pass.key() );                                                                   \
      }                                                                                            \
   }

/// A keyed collection of values.
#define VEL_COLLECTION( Shape, Key_, Value_, foo, ... )                                            \
   VEL_COLLECTION_( Key_, foo, __VA_ARGS__ )                                                       \
 public:                                                                                           \
   Value_ const& foo( Key_ const& key ) const { return foo##_.lookup( key ); }                     \
   void foo##Is( Key_ key, Value_ const& value ) {                                                 \
      if ( foo##_.set( key, value ) ) {                                                            \
         VEL_CALL_( ( key ), __VA_ARGS__ )                                                         \
      }                                                                                            \
   }                                                                                               \
   VEL_VISIT_( foo, ::Vel::visitCollection )                                                       \
 private:                                                                                          \
   ::Vel::Shape< Key_, Value_ > foo##_;

/// A collection of values that carry their key in the field `keyField`.
#define VEL_VALUES( Shape, Key_, Value_, keyField, foo, ... )                                      \
   VEL_COLLECTION_( Key_, foo, __VA_ARGS__ )                                                       \
 public:                                                                                           \
   Value_ const& foo( Key_ const& key ) const { return foo##_.lookup( key ); }                     \
   void foo##Is( Value_ const& value ) {                                                           \
      const Key_ key = value.keyField;                                                             \
      if ( foo##_.set( key, value ) ) {                                                            \
         VEL_CALL_( ( key ), __VA_ARGS__ )                                                         \
      }                                                                                            \
   }                                                                                               \
   VEL_VISIT_( foo, ::Vel::visitCollection )                                                       \
 private:                                                                                          \
   ::Vel::Shape< Key_, Value_ > foo##_;

/// A set. `fooIs( key, false )` is `fooDel( key )`: a member whose value is false is no member.
#define VEL_SET( Shape, Key_, foo, ... )                                                           \
   VEL_COLLECTION_( Key_, foo, __VA_ARGS__ )                                                       \
 public:                                                                                           \
   void foo##Is( Key_ key, bool member = true ) {                                                  \
      if ( member ? foo##_.insert( key ) : foo##_.erase( key ) ) {                                 \
         VEL_CALL_( ( key ), __VA_ARGS__ )                                                         \
      }                                                                                            \
   }                                                                                               \
   VEL_VISIT_( foo, ::Vel::visitSet )                                                              \
 private:                                                                                          \
   ::Vel::Shape< Key_ > foo##_;

/// A collection of entities that it makes and owns: `fooIs( key, ... )` gives the one that is
/// there, or makes it from the key and the other arguments. It gives null when a handler that
/// heard of the new one has removed it.
#define VEL_ENTITY_COLLECTION( Shape, Key_, Type, foo, ... )                                       \
   VEL_COLLECTION_( Key_, foo, __VA_ARGS__ )                                                       \
 public:                                                                                           \
   Type* foo( Key_ const& key ) const {                                                            \
      const ::Vel::Ptr< Type >* const found = foo##_.find( key );                                  \
      return found ? found->get() : nullptr;                                                       \
   }                                                                                               \
   template< class... Args_ >                                                                      \
   Type* foo##Is( Key_ key, Args_&&... args ) {                                                    \
      if ( Type* const there = foo( key ) ) {                                                      \
         return there;                                                                             \
      }                                                                                            \
      const auto keep = ::Vel::make< Type >( key, std::forward< Args_ >( args )... );              \
      keep->parentIs( this, foo##Number_ );                                                        \
      foo##_.set( key, keep );                                                                     \
      VEL_CALL_( ( key ), __VA_ARGS__ )                                                            \
      return keep->references() > 1 ? keep.get() : nullptr;                                        \
   }                                                                                               \
   VEL_VISIT_( foo, ::Vel::visitChildren )                                                         \
 private:                                                                                          \
   ::Vel::OwnedEntities< ::Vel::Shape< Key_, ::Vel::Ptr< Type > > > foo##_;
// clang-format on
