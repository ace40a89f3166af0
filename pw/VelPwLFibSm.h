// PwLFibSm: turns the LFIB's pseudowire routes into decapsulation records.
//
// Purpose. For every top label whose route leads into a pseudowire, tell the pseudowire layer which
// pseudowire its frames are for. A VLAN pseudowire also needs a hardware FEC, which describes its
// connector; the record is written when hardware has answered with it. A port pseudowire needs
// nothing else.
//
//    Inputs                                          Outputs
//    Mpls::LfibStatus       routes, via sets, vias   VelPw::DecapInfoTable   labelToPwDecapInfo
//    Pseudowire::Status     localConnectorInfo       FecIdToHwFecIdRequest   fec, hwFecIdRequest
//    FecIdToHwFecIdResponse hwFecId                     both emptied at the start
//
// The states of a label, each told by what there is of it:
//
//                              ┌──────────> port: an entry in labelToPwDecapInfo, no FEC id
//    none: no route of a shape ┤                                  ▲
//    that can be carried out   └──> waiting: FEC id and request ──┘  (its route leads elsewhere)
//                                        │  ▲
//                        valid answer    ▼  │   answer withdrawn
//                                   complete: an entry too
//
// From each state a label goes back to none when its last such route goes, and to another
// pseudowire by way of none, under a new FEC id.
//
// Several routes may have a label on top, with different labels below. They share its FEC id and
// its record. Of those that have the shape the last in the order of keys decides, which is the
// single label if it is there: the outcome does not depend on the order of events. When it goes,
// the next one takes over, without interruption where it leads into the same pseudowire.
//
// An id is free when it has neither a request nor an answer left. Answers come late, so one counts
// only for a request of the present life of the id: a request's version grows with each change of
// its content, through all lives and instances, and an answer names the version that is carried
// out.
//
// What cannot be read in the LFIB stays as it is, and is looked at again when it is announced, or
// after a second.
//
// Ownership: `decapLabel` owns a record for each label with routes, `pwIntfIdToFecId` one for each
// VLAN pseudowire with FECs; all others are values, and mirror each other:
//    dstPortFecRequested ─ fecIdToDecapInfo ─ fecIdToFirstVersion   a label and its FEC id
//    decapLabelToVlanPwIntfId ─ pwIntfIdToFecId                     a label and its pseudowire
// Holds its inputs and outputs, the tracker, the allocator, and a timer while something is unread.
//
// Invariants. An entry of labelToPwDecapInfo that names a hardware FEC is there only while its
// request is. `allocatedFecId` holds the ids with a request, and those that wait for their answer
// to go. An answer for another id is neither freed nor asserted on.
//
// Yield points: none, a handler does its work at once; the LFIB's poll bounds how much comes at a
// time. Threads: one.
// Cost: an event takes a constant number of look-ups for each route of its label, or for each FEC
// of its pseudowire.

#pragma once

#include <memory>
#include <optional>

#include "platform/entity/ReadOnly.h"
#include "platform/lfib/LfibTracking.h"
#include "platform/seams/FecTables.h"
#include "platform/seams/PwStatus.h"
#include "platform/services/NumAllocator.h"
#include "platform/services/TimerWheel.h"

namespace Vel {

/// The FECs that carry the connector of a pseudowire.
class VEL_EXPORT PwIntfIdToFecIdCollection : public Entity {
   // clang-format off
   VEL_ENTITY( PwIntfIdToFecIdCollection )
   VEL_KEY( IntfId, pwIntfId )
   VEL_SET( HashSet, Fib::FecId, fecId )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit PwIntfIdToFecIdCollection( IntfId pwIntfId ) : pwIntfId_( pwIntfId ) {}
};

/// The pseudowire routes with a label on top, and which of them has decided; none while none can.
class VEL_EXPORT PwDecapLabel : public Entity {
   // clang-format off
   VEL_ENTITY( PwDecapLabel )
   VEL_KEY( MplsLabel, label )
   VEL_SET( OrderedSet, Mpls::RouteKey, routeKey )   // the deeper ones first
   VEL_ATTRIBUTE( Mpls::RouteKey, decidingRouteKey )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit PwDecapLabel( MplsLabel label ) : label_( label ) {}
};

/// The state machine of pseudowire labels.
class VEL_EXPORT PwLFibSm : public Entity {
   // clang-format off
   VEL_ENTITY( PwLFibSm )
   VEL_READ_ONLY( bool, initialized )
   VEL_READ_ONLY( Ptr< NumAllocatorConfig >, numAllocatorConfig )      // of decap FEC indices
   VEL_READ_ONLY( Ptr< NumAllocatorStatus >, numAllocatorStatus )
   VEL_READ_ONLY( Ptr< NumAllocator >, numAllocator )
   VEL_READ_ONLY( Ptr< Mpls::LfibTrackingStatus >, lfibTrackingStatus )
   VEL_READ_ONLY( Ptr< Mpls::LfibTrackingSm >, lfibTrackingSm )
   VEL_ENTITY_COLLECTION( Hash, MplsLabel, PwDecapLabel, decapLabel )
   VEL_COLLECTION( Hash, MplsLabel, Fib::FecId, dstPortFecRequested )
   VEL_SET( HashSet, Fib::FecId, allocatedFecId )
   VEL_COLLECTION( Hash, Fib::FecId, VelPw::PwDecapInfo, fecIdToDecapInfo )
   VEL_COLLECTION( Hash, Fib::FecId, U64, fecIdToFirstVersion )        // of the id's present life
   VEL_COLLECTION( Hash, MplsLabel, IntfId, decapLabelToVlanPwIntfId )
   VEL_ENTITY_COLLECTION( Hash, IntfId, PwIntfIdToFecIdCollection, pwIntfIdToFecId )
   VEL_SET( HashSet, Mpls::RouteKey, unreadRouteKey )                  // to be looked at again
   VEL_READ_ONLY( Ptr< const Mpls::LfibStatus >, pwLfib )
   VEL_READ_ONLY( Ptr< VelPw::DecapInfoTable >, decapInfoTable )
   VEL_READ_ONLY( Ptr< const Pseudowire::Status >, pwStatus )
   VEL_READ_ONLY( Ptr< FecIdToHwFecIdRequest >, hwFecIdRequest )
   VEL_READ_ONLY( Ptr< const FecIdToHwFecIdResponse >, hwFecIdResponse )
   VEL_READ_ONLY( Ptr< TimerWheel >, timerWheel )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   /// Seconds until what could not be read is looked at again.
   static constexpr double unreadRetryInterval = 1.0;

   /// Starts at once. All inputs are needed; the request table must be this state machine's own.
   PwLFibSm( Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< VelPw::DecapInfoTable > decapInfoTable,
             Ptr< const Pseudowire::Status > pwStatus, Ptr< FecIdToHwFecIdRequest > request,
             Ptr< const FecIdToHwFecIdResponse > response, Ptr< TimerWheel > timerWheel );
   /// Leaves the outputs as they are, for its successor to replace.
   ~PwLFibSm() override;
   std::string name() const override { return "pwLFibSm"; }

   /// Handles the whole backlog.
   void handleLFibRoute();
   /// A route is new, changed or gone, or its via set or via is.
   void handleLFibRoute( Mpls::RouteKey routeKey );
   /// An answer is new, changed or withdrawn.
   void handleHwFecIdResponse( Fib::FecId fecId );
   /// The local end of a pseudowire is known, another one, or not known any more.
   void handleConnectorChange( IntfId pwIntfId );

 private:
   class Reactors;

   VEL_HIDDEN void handleInitialized();
   VEL_HIDDEN void clearTablesOfBefore();

   // Routes.
   VEL_HIDDEN void handleReadRoute( Mpls::RouteKey routeKey, const Mpls::LfibRoute& route );
   VEL_HIDDEN void decideLabel( PwDecapLabel& routes );
   VEL_HIDDEN bool maybeAddPwLfibRouteDecapInfo( Mpls::RouteKey routeKey );
   VEL_HIDDEN std::optional< IntfId > pwIntfIdOfRoute( Mpls::RouteKey routeKey );
   VEL_HIDDEN bool lookAgainIfUnread( Mpls::RouteKey routeKey );
   VEL_HIDDEN void handleUnreadTimer();
   VEL_HIDDEN void withdraw( MplsLabel label );

   // FECs of VLAN pseudowires.
   VEL_HIDDEN void addHwFecIdRequest( MplsLabel label, IntfId pwIntfId );
   VEL_HIDDEN void removeHwFecIdRequest( MplsLabel label );
   VEL_HIDDEN void writeHwFecIdRequest( Fib::FecId fecId, const Fib::DecapConnector& connector );
   VEL_HIDDEN void removeVlanPwIntfIdFromLabel( MplsLabel label, Fib::FecId labelFecId );
   VEL_HIDDEN Fib::FecId getOrAllocateDecapFecId( MplsLabel label );
   VEL_HIDDEN void maybeFreeDecapFecId( Fib::FecId fecId );
   VEL_HIDDEN bool answered( Fib::FecId fecId ) const;

   // Decapsulation records.
   VEL_HIDDEN void removeDecapInfoTableEntry( MplsLabel label );

   TimerWheel::TimerId unreadTimer_ = 0;
   std::unique_ptr< Reactors > reactors_; // last: goes first
};

/// Makes the state machine, which starts at once.
VEL_EXPORT Ptr< PwLFibSm > // NOLINTNEXTLINE(readability-identifier-naming)
PwLFibSmIs( Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< VelPw::DecapInfoTable > decapInfoTable,
            Ptr< const Pseudowire::Status > pwStatus, Ptr< FecIdToHwFecIdRequest > request,
            Ptr< const FecIdToHwFecIdResponse > response, Ptr< TimerWheel > timerWheel );
/// The same, under the name that agents find their factories by.
VEL_EXPORT Ptr< PwLFibSm > pwLFibSmFactory( Ptr< const Mpls::LfibStatus > lfibStatus,
                                            Ptr< VelPw::DecapInfoTable > decapInfoTable,
                                            Ptr< const Pseudowire::Status > pwStatus,
                                            Ptr< FecIdToHwFecIdRequest > request,
                                            Ptr< const FecIdToHwFecIdResponse > response,
                                            Ptr< TimerWheel > timerWheel );

} // namespace Vel
