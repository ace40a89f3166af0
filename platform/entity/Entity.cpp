#include "platform/entity/Entity.h"

#include <algorithm>
#include <utility>

namespace Vel {

ReactorBase::~ReactorBase() {
   notifierBind( nullptr );
}

void ReactorBase::notifierBind( const Entity* notifier ) {
   if ( notifier_ == notifier ) {
      return;
   }
   ReactorHub* const hub = notifier ? notifier->reactorHub() : nullptr;
   VEL_ASSERT_TEXT( hub || !notifier, "notifier->reactorHub()", "nothing can be heard of this type",
                    "platform", std::string( notifier->typeName() ) );
   if ( notifier_ ) {
      notifier_->reactorHub()->remove( this );
   }
   // The former entity is held to the end: this may be the last reference to it.
   const Ptr< const Entity > before = std::exchange( notifier_, Ptr< const Entity >( notifier ) );
   if ( hub ) {
      hub->add( this );
   }
}

void ReactorHub::remove( ReactorBase* reactor ) {
   const auto at = std::find( reactors_.begin(), reactors_.end(), reactor );
   VEL_ASSERT( at != reactors_.end() );
   if ( depth_ == 0 ) {
      reactors_.erase( at );
   } else {
      *at = nullptr;
      holes_ = true;
   }
}

void ReactorHub::compact() {
   std::erase( reactors_, nullptr );
   holes_ = false;
}

Entity::~Entity() = default;

std::string Entity::fullName() const {
   if ( parent_ == nullptr ) {
      return name();
   }
   return joinText( parent_->fullName(), "/", parentAttrName(), "/", name() );
}

std::string_view Entity::parentAttrName() const {
   return parent_ ? parent_->attributeName( parentAttribute_ ) : std::string_view();
}

WatchedEntity::~WatchedEntity() {
   delete hub_;
}

ReactorHub* WatchedEntity::reactorHub() const {
   if ( hub_ == nullptr ) {
      hub_ = new ReactorHub;
   }
   return hub_;
}

} // namespace Vel
