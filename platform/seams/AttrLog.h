// The attribute log's output: entities change faster than a slow reader of their log can take.
//
// Whoever drains the log says when its output is clogged; tasks that change many entities yield
// while it is.

#pragma once

#include "platform/entity/Entity.h"

namespace Vel {

class VEL_EXPORT AttrLogSm : public WatchedEntity {
 public:
   class VEL_EXPORT Reactor : public ReactorOf< AttrLogSm > {
    public:
      virtual void onIsAttrLogOutClogged() {}
   };

   // clang-format off
   VEL_ENTITY( AttrLogSm )
   VEL_ATTRIBUTE( bool, isAttrLogOutClogged, onIsAttrLogOutClogged )
   VEL_ENTITY_END
   // clang-format on

 public:
   AttrLogSm() = default;
   std::string name() const override { return "attrLogSm"; }
};

} // namespace Vel
