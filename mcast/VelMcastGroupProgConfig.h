// The replication groups that MplsSm needs, as it describes them to the multicast group programmer.

#pragma once

#include <string>

#include "platform/entity/Entity.h"
#include "platform/values/FecTypes.h"

namespace Vel {

/// One replication group: its members and their out-interfaces.
class VEL_EXPORT McastGroupProgInfo : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< McastGroupProgInfo > {
    public:
      virtual void onRequestId() {}
   };

   // clang-format off
   VEL_ENTITY( McastGroupProgInfo )
   VEL_KEY( U16, mcastGroupId )
   VEL_ATTRIBUTE( U32, mcastHwId )
   VEL_COLLECTION( Hash, Fib::FecId, U64, outLif )    // a member and its hardware out-interface
   VEL_ATTRIBUTE( U32, requestId, onRequestId )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit McastGroupProgInfo( U16 groupId ) : mcastGroupId_( groupId ) {}
   void requestIdInc( U32 delta = 1 ) { requestIdIs( requestId() + delta ); }
};

/// All replication groups. Written by MplsSm.
class VEL_EXPORT McastGroupProgConfig : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< McastGroupProgConfig > {
    public:
      virtual void onMcastGroupProgInfo( U16 ) {}
   };

   // clang-format off
   VEL_ENTITY( McastGroupProgConfig )
   VEL_KEY( std::string, configName )
   VEL_ENTITY_COLLECTION( Hash, U16, McastGroupProgInfo, mcastGroupProgInfo, onMcastGroupProgInfo )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit McastGroupProgConfig( std::string name ) : configName_( std::move( name ) ) {}
};

} // namespace Vel
