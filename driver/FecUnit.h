// FecUnit: the FECs of the software switch. Requests are answered with hardware ids, routes forward
// into what stands behind an id, and a protected FEC changes over to its backup by itself.
//
//    FecIdToHwFecIdRequest ──queue──> sync( fecId ) ──> HwFec ──> FecIdToHwFecIdResponse
//                                          ▲
//        FECs of other agents, tunnels ────┘
//
// An operation on a FEC carries only the FEC's id; the content is read from the request table when
// the operation is carried out. So of several changes in a row only the last one is written. Until
// then the FEC in hardware stays as it is, since routes that the library moved out of it before the
// change may wait in the same queue. The answer names the version of the request that has been
// carried out; until that is the latest one, the library writes no further route into the FEC. A
// FEC keeps its hardware id while it is requested; its content is replaced in place, which no frame
// notices.
//
// Who makes a FEC. Label FECs are made from the content of the request. The FECs of other agents
// (next-hop groups, external FECs) and the tunnels are made known here by whoever plays those
// agents; a request for such a FEC is answered while the FEC is known.
//
// Ways out. A via leads out by an interface that is up to a neighbour that is resolved, or into
// another FEC or a tunnel that has a way out, eight levels deep at most. A hash over the flow picks
// one of the usable vias. When none is usable, frames take the FEC's backup. AdjHwStatus reports
// for every protected FEC which of both carries frames, and for any other FEC only that neither
// does. See FecWays.cpp.
//
// Restart. A switch that starts on hardware that an earlier driver left holds all requests until
// the library has written all of them (`syncRequestsReady`). Then a request whose sync id names a
// FEC with exactly the requested content takes that FEC over as it is, with its hardware id. Any
// other request takes over a FEC with that content that no other request has taken, or gets a new
// FEC, to which the library then moves the routes. At the end `adjSyncDone` is set. For a library
// that starts afresh, all that the earlier driver left is removed, routes first. See
// FecRestart.cpp.
//
//    a FEC is     kept in       with routes of        until
//    recovered    recovered_    the earlier driver    a request matches it: adopted
//                                                     `mayReplace` names it: offered
//                                                     its last route leaves: gone
//    offered      recovered_    the earlier driver,   the request that they wait for is written in
//                               which all wait        its place: made
//                                                     room is needed: gone, with its routes
//                                                     the offer is withdrawn: recovered
//    adopted      fecs_         both drivers          this driver has written all of them: made
//                                                     its request changes or goes: given back, that
//                                                     is, recovered again
//    made         fecs_         this driver           its request goes: gone
//                                                     `mayTakeOver` names it and there is no room:
//                                                     rewritten as the FEC that its routes wait for
//
//    a request is held (held_) until syncRequestsReady, and waits (waiting_) while hardware cannot
//    make its FEC
//
// Room. When there is no room for one more FEC, it gets the place of a FEC whose routes all wait
// for the new one. The content is replaced in place, which moves those routes in one step, so that
// they are never dark. A FEC of the earlier driver whose routes wait for several FECs may be taken
// out together with its routes; routes in a FEC of this driver stay there until there is room. This
// happens only in the hardware's own turn, never while the library is in the middle of something.
//
// A FEC that cannot be made now (no room, an interface that is not ready) is made as soon as it can
// be; until then its request is not answered.

#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "driver/FaultPlan.h"
#include "driver/HwState.h"
#include "driver/HwTables.h"
#include "driver/Links.h"
#include "mpls/VelMplsSmHelper.h"
#include "platform/seams/FecTables.h"

namespace Vel::Driver {

/// Everything between the library and the FECs.
struct FecPlatform {
   /// The hardware's table of neighbours.
   using Resolve = std::function< NextHopInfo( IntfId intf, const IpGenAddr& nextHop ) >;

   Ptr< FecIdToHwFecIdRequest > request;
   Ptr< FecIdToHwFecIdResponse > response;
   Ptr< VelL3Status > l3Status;
   Ptr< L3StartupStagePrerequisitesStatus > startup; ///< may be empty
   Resolve resolve{};
   Ptr< VelHelper::MplsRouteSyncMap > routeSyncMap =
      nullptr; ///< is told what was recovered; may be empty
   std::function< std::string( IntfId intf ) > intfName{}; ///< for people; may be empty

   bool present() const { return request && response && l3Status; }
};

class SwitchStatus;

class FecUnit {
 public:
   /// All that is referred to must outlive it.
   FecUnit( FecPlatform platform, OperationQueue& queue, SwitchStatus& status,
            const FaultPlan& faults, const Links& links, const Clock& clock );
   FecUnit( const FecUnit& ) = delete;
   FecUnit& operator=( const FecUnit& ) = delete;
   ~FecUnit();

   // --- Other agents

   /// A FEC of another agent appears or changes.
   void foreignFecIs( Fib::FecId fecId, std::vector< Fib::FecVia > vias );
   void foreignFecDel( Fib::FecId fecId );
   /// A dynamic tunnel appears or changes.
   void tunnelIs( IntfId intf, std::vector< Fib::FecVia > vias );
   void tunnelDel( IntfId intf );

   /// Neighbours or links have changed: reports which way frames take now by each FEC.
   void reportStates();

   // --- Restart, FecRestart.cpp

   /// Takes in the FECs that an earlier driver left, before anything else; the routes are taken in
   /// by the switch.
   void recover( const HwState& state );
   /// Takes all routes into a FEC out of hardware.
   using TakeRoutesOut = std::function< void( const HwFec& fec ) >;
   void takeRoutesOutIs( TakeRoutesOut takeRoutesOut ) {
      takeRoutesOut_ = std::move( takeRoutesOut );
   }
   /// Takes all routes of an earlier driver out of hardware.
   void takeFoundOutIs( std::function< void() > takeFoundOut ) {
      takeFoundOut_ = std::move( takeFoundOut );
   }
   /// Requests are held until the library has written all of them.
   bool syncing() const { return syncing_; }
   /// The library has written all requests: takes over the earlier driver's FECs that match, and
   /// answers.
   void syncRequested();
   /// The first route has come into the FEC, or the last one left it.
   void useChanged( HwFec& fec ) {
      if ( fec.found ) {
         reckon( fec );
         maybeRelease( fec );
      }
   }
   /// The last route of the earlier driver has left a FEC, which a waiting request may now use.
   void foundRoutesGone() { retrySoon(); }
   void addTo( HwState& state ) const;

   // --- The switch

   /// How many FECs fit; 0: no limit.
   void capacityIs( size_t fecs ) { capacity_ = fecs; }
   /// Carries out one queued operation on the FEC.
   void carryOut( Fib::FecId fecId );
   /// Hardware does not have the FEC's requested content yet: no route may come into it.
   bool behind( const HwFec& fec ) const;
   /// A route is about to come into the FEC.
   void routeComes( HwFec& fec );
   /// Tries the waiting requests again. Only in the hardware's own turn.
   void retryWaiting();
   /// The FEC behind a hardware id, or null.
   HwFec* fec( U64 hwId ) const;
   HwFec* fec( Fib::FecId fecId ) const;
   size_t fecs() const { return fecs_.size(); }
   /// The way that a frame of the flow takes; false when there is none, and why.
   bool wayOut( const HwRoute& route, U64 flowHash, Mpls::Hardware::L2Via& out,
                std::string& why ) const;

 private:
   class RequestReactor;
   class NameReactor;
   struct Search;
   struct Way;

   static bool fitsInPlace( const HwFec& fec, const std::vector< Fib::FecVia >& vias );
   void push( Fib::FecId fecId );
   void sync( Fib::FecId fecId );
   size_t capacity() const;
   size_t room() const;
   std::vector< Fib::FecId > foundBehind( const HwFec& fec ) const;
   bool hasRoomFor( Fib::FecId fecId ) const;
   bool ready( const std::vector< Fib::FecVia >& vias ) const;
   void answer( const HwFec& fec );
   void noLongerWaits( Fib::FecId fecId );
   void waits( Fib::FecId fecId, UnprogrammedReason reason );
   bool wanted( Fib::FecId fecId, std::vector< Fib::FecVia >& vias, Fib::FecId& backup ) const;
   void remove( Fib::FecId fecId );
   void syncHeld( Fib::FecId fecId, bool byContent );
   const Ptr< HwFec >* matched( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias,
                                Fib::FecId backup, bool byContent ) const;
   Ptr< HwFec > adopted( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias,
                         Fib::FecId backup );
   Ptr< HwFec > replaced( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias );
   Ptr< HwFec > takenOver( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias );
   bool placeBack( Fib::FecId fecId, HwFec& fec );
   void retrySoon();
   bool makeRoomFor( Fib::FecId fecId );
   void foundIs( HwFec& fec, bool found );
   void reckon( HwFec& fec );
   void maybeRelease( HwFec& fec );
   void clearFound();
   void countFecs();
   void backupIs( HwFec& fec, Ptr< HwFec > backup );
   void giveBack( Fib::FecId fecId, Ptr< HwFec > fec );
   void leaveFormerPrimaries( HwFec& fec );
   void contentIs( HwFec& fec, const std::vector< Fib::FecVia >& vias, Fib::FecId backup );
   void dependsOn( const HwFec& fec, bool depends );
   void changed( Fib::FecId fecId );
   bool namesAsBackup( Fib::FecId fecId, Fib::FecId other ) const;
   std::string nameOf( IntfId intf ) const;
   bool follow( const HwFec& fec, Way& way, std::string& why ) const;
   bool follow( const Fib::FecVia& via, Way& way, std::string& why ) const;
   bool follow( const std::vector< Fib::FecVia >& vias, Way& way, std::string& why ) const;
   static bool enter( const void* what, const std::function< std::string() >& name, Way& way,
                      std::string& why );
   static void leave( const void* what, const Way& way );
   bool followTunnel( IntfId intf, Way& way, std::string& why ) const;
   void report( HwFec& fec );
   AdjHwState stateOf( const HwFec& fec ) const;
   void stateIs( HwFec& fec, AdjHwState state );

   FecPlatform platform_;
   OperationQueue& queue_;
   SwitchStatus& status_;
   const FaultPlan& faults_;
   const Links& links_;
   const Clock& clock_;
   size_t capacity_ = 0;
   U64 nextHwId_ = 1;
   Hash< Fib::FecId, Ptr< HwFec > > fecs_;
   Hash< U64, HwFec* > byHwId_;
   Hash< Fib::FecId, U32 > queued_;              // how many operations on the FEC wait
   Hash< Fib::FecId, Fib::FecId > placeTakenBy_; // a requested FEC: the FEC that got its place
   HashSet< Fib::FecId > waiting_;               // requested, and hardware cannot make them now
   /// For each FEC, the FECs that lead into it: by a via, or because it is their backup.
   Hash< Fib::FecId, std::set< Fib::FecId > > dependents_;
   Hash< U64, Ptr< HwFec > > recovered_; // an earlier driver's, not taken over; by hardware id
   size_t staying_ = 0;                  // how many of these have HwFec::stays
   /// Hardware ids of an earlier driver's FECs by the hash of their content. FECs that were taken
   /// over stay listed.
   Hash< U64, std::vector< U64 > > recoveredByContent_;
   TakeRoutesOut takeRoutesOut_;
   std::function< void() > takeFoundOut_;
   bool retryQueued_ = false;
   bool retrying_ = false;
   bool mayTakeOut_ = false; // in the second pass over waiting_: the first one rewrites in place
   bool syncing_ = false;    // requests are held
   HashSet< Fib::FecId > held_;
   Hash< Fib::FecId, U64 > backupHint_; // by requested backup: what its primary's backup was before
   std::unique_ptr< RequestReactor > reactor_;
   std::unique_ptr< NameReactor > nameReactor_;
};

} // namespace Vel::Driver
