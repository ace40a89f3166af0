// FecUnit: the FECs of the software switch. Requests are answered with hardware ids, routes forward
// into what stands behind an id, and a protected FEC changes over to its backup by itself.
//
//    FecIdToHwFecIdRequest ──queue──> sync( fecId ) ──> HwFec ──> FecIdToHwFecIdResponse
//                                          ▲
//        FECs of other agents, tunnels ────┘
//
// An operation on a FEC carries its id and nothing else: what is written is what the request table
// says when its turn comes. Of several changes in a row the last one counts: what is in hardware is
// left alone until its turn, since routes that have been written elsewhere before it are still to
// leave. The answer names the version that has been carried out, and no route comes into a FEC
// before that is the one requested. A FEC keeps its hardware id while it is requested; its content is
// replaced in place, which no frame notices.
//
// Who makes a FEC. Label FECs are made of what the request says. The FECs of other agents (next-hop
// groups, external FECs) and the tunnels are made known here by whoever plays those agents; a
// request for one is answered when it is there, and the answer is withdrawn when it goes.
//
// Ways out. A via leads out by an interface that is up to a neighbour that is resolved, or into
// another FEC or a tunnel that has a way out, eight levels deep at most. A hash over the flow picks
// one of the usable vias. Without one the FEC's backup is taken. Which of both is in use is
// reported for every protected FEC in AdjHwStatus, and of any other that it has no way out. FecWays.cpp.
//
// Restart. A switch that starts on what an earlier driver left holds all requests back until the
// library says that it has written them (`syncRequestsReady`). Then a request whose sync id names a
// FEC that has just the content that is wanted takes it over as it is, with its hardware id; any
// other gets one with just that content that nobody else has taken, or a FEC of its own, to which
// its routes then move. At the end `adjSyncDone` is set. A library that starts afresh instead wants
// nothing of before: all of it goes, routes first. FecRestart.cpp.
//
//    a FEC is     where            whose routes           until
//    recovered    recovered_       an earlier driver's    matched: adopted; `mayReplace` names it:
//                                                         offered; its last route has left: gone
//    offered      recovered_       ... all waiting        wanted in place: made; in the way: gone with
//                                                         its routes; the offer is withdrawn: recovered
//    adopted      fecs_            both drivers'          all of before have been written: made;
//                                                         request changes or goes: given back
//    given back   recovered_       an earlier driver's    as recovered, which it is again
//    made         fecs_            this driver's          the request goes: gone; `mayTakeOver` names
//                                                         it, and the other one needs its place: made,
//                                                         as that one
//
//    a request is held (held_) until syncRequestsReady, and waits (waiting_) while hardware cannot
//
// Room. Where there is no room for one more FEC, it is given the place of one that is left with
// routes that wait for just this one. Its content is replaced in place, so that those routes have
// moved with that and never been dark. Of FECs of before, such a one may also be taken out with its
// routes, where they wait for several: those of a FEC of this driver stay where they are until there
// is room. Only in the hardware's own turn, never while the library is in the middle of something.
//
// What cannot be made now (no room, an interface that is not ready) is made as soon as it can be;
// until then there is no answer.

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

   /// Neighbours or links have changed: says of each FEC which way it takes now.
   void reportStates();

   // --- Restart, FecRestart.cpp

   /// What an earlier driver left; before anything else. `fecs` of the state, not its routes.
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
   /// What is requested is held.
   bool syncing() const { return syncing_; }
   /// All requests have been written: takes over what can be taken over and answers.
   void syncRequested();
   /// The first route has come into the FEC, or the last one left it.
   void useChanged( HwFec& fec ) {
      if ( fec.found ) {
         reckon( fec );
         maybeRelease( fec );
      }
   }
   /// No route is left in it that was found there.
   void foundRoutesGone() { retrySoon(); }
   void addTo( HwState& state ) const;

   // --- The switch

   /// How many FECs fit; 0: no limit.
   void capacityIs( size_t fecs ) { capacity_ = fecs; }
   /// An operation on the FEC has its turn.
   void carryOut( Fib::FecId fecId );
   /// What is requested of the FEC has not been carried out: no route may come into it.
   bool behind( const HwFec& fec ) const;
   /// A route that was not in the FEC is about to be.
   void routeComes( HwFec& fec );
   /// Tries what was not possible before. Only in the hardware's own turn.
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
   Hash< Fib::FecId, U32 > queued_;              // operations on each
   Hash< Fib::FecId, Fib::FecId > placeTakenBy_; // of one that is still requested
   HashSet< Fib::FecId > waiting_;               // requested, not possible now
   /// Which FECs lead into one: by their vias, or as their backup.
   Hash< Fib::FecId, std::set< Fib::FecId > > dependents_;
   Hash< U64, Ptr< HwFec > > recovered_; // of an earlier driver, not taken over
   size_t staying_ = 0;                  // of these, such as stay
   /// Which of them may have a content, by its hash. Those that were taken over stay listed.
   Hash< U64, std::vector< U64 > > recoveredByContent_;
   TakeRoutesOut takeRoutesOut_;
   std::function< void() > takeFoundOut_;
   bool retryQueued_ = false;
   bool retrying_ = false;
   bool mayTakeOut_ = false; // else what can be rewritten in place goes first
   bool syncing_ = false;    // what is requested is held
   HashSet< Fib::FecId > held_;
   Hash< Fib::FecId, U64 > backupHint_; // the hardware id that the backup of a matched FEC had
   std::unique_ptr< RequestReactor > reactor_;
   std::unique_ptr< NameReactor > nameReactor_;
};

} // namespace Vel::Driver
