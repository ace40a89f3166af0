#include "driver/FecUnit.h"

#include <algorithm>
#include <limits>

#include "driver/SwitchStatus.h"
#include "platform/base/Trace.h"

namespace Vel::Driver {

using Fib::FecId;
using Fib::FecVia;

class FecUnit::RequestReactor : public FecIdToHwFecIdRequest::Reactor {
 public:
   RequestReactor( FecUnit& owner, const FecIdToHwFecIdRequest* request ) : owner_( owner ) {
      notifierIs( request );
   }
   void onHwFecIdRequest( FecId fecId ) override { owner_.push( fecId ); }
   void onMayReplace( AdjSyncId syncId ) override {
      if ( HwFec* const offered = owner_.fec( syncId ) ) {
         owner_.reckon( *offered );
      }
      owner_.retrySoon();
   }
   void onMayTakeOver( FecId ) override { owner_.retrySoon(); }
   void onSyncRequestsReady() override {
      if ( notifier()->syncRequestsReady() ) {
         owner_.queue_.push( { .kind = OperationKind::syncRequested } );
      } else if ( owner_.platform_.startup ) {
         owner_.platform_.startup->adjSyncDoneIs( false ); // the library starts again
      }
   }

 private:
   FecUnit& owner_;
};

// States are reported under the number of a FEC's VRF, which is known only while the VRF has a
// name. When a name comes, they are reported again.
class FecUnit::NameReactor : public VelL3Status::Reactor {
 public:
   NameReactor( FecUnit& owner, const VelL3Status* status ) : owner_( owner ) {
      notifierIs( status );
   }
   void onVrfName( VrfId ) override { owner_.reportStates(); }

 private:
   FecUnit& owner_;
};

FecUnit::FecUnit( FecPlatform platform, OperationQueue& queue, SwitchStatus& status,
                  const FaultPlan& faults, const Links& links, const Clock& clock )
   : platform_( std::move( platform ) ),
     queue_( queue ),
     status_( status ),
     faults_( faults ),
     links_( links ),
     clock_( clock ),
     reactor_( std::make_unique< RequestReactor >( *this, platform_.request.get() ) ),
     nameReactor_( std::make_unique< NameReactor >( *this, platform_.l3Status.get() ) ) {
   for ( const auto& [fecId, request] : platform_.request->hwFecIdRequest() ) {
      push( fecId );
   }
}

FecUnit::~FecUnit() = default;

// --- Other agents.

void FecUnit::foreignFecIs( FecId fecId, std::vector< FecVia > vias ) {
   status_.foreignFecIs( fecId, { fecId, std::move( vias ), {} } );
   push( fecId );
}

void FecUnit::foreignFecDel( FecId fecId ) {
   status_.foreignFecDel( fecId );
   push( fecId );
}

void FecUnit::tunnelIs( IntfId intf, std::vector< FecVia > vias ) {
   status_.tunnelIs( intf, { {}, std::move( vias ), {} } );
   reportStates();
}

void FecUnit::tunnelDel( IntfId intf ) {
   status_.tunnelDel( intf );
   reportStates();
}

void FecUnit::reportStates() {
   for ( const auto& [fecId, fec] : fecs_ ) {
      report( *fec );
   }
}

// For a FEC without a backup, the only state that is reported is that frames cannot leave by it.
void FecUnit::report( HwFec& fec ) {
   const AdjHwState state = stateOf( fec );
   stateIs( fec,
            fec.backupFecId != FecId() || state == AdjHwState::down ? state : AdjHwState::unknown );
}

// Reports the FEC's state in place of its former one. For an unknown state no entry is left.
void FecUnit::stateIs( HwFec& fec, AdjHwState state ) {
   AdjHwStatus* const status = platform_.l3Status->adjHwStatus().get();
   if ( status == nullptr ) {
      return;
   }
   std::optional< VrfId > number;
   for ( const auto& [vrfId, vrf] : platform_.l3Status->vrfName() ) {
      if ( vrf == fec.vrfName && state != AdjHwState::unknown ) {
         number = vrfId;
      }
   }
   // The VRF may have lost its name, or come back under another number, since the last report.
   if ( fec.reportedIn && !number && state != AdjHwState::unknown ) {
      number = fec.reportedIn; // the VRF has no name: its entry is kept up to date
   }
   if ( fec.reportedIn && fec.reportedIn != number ) {
      status->adjHwStateDel( { *fec.reportedIn, fec.fecId } );
      fec.reportedIn.reset();
   }
   if ( number ) {
      status->adjHwStateIs( { *number, fec.fecId }, state );
      fec.reportedIn = number;
   }
}

// --- Requests.

void FecUnit::push( FecId fecId ) {
   ++*queued_.emplace( fecId, 0U ).first;
   queue_.push( Operation::ofFec( fecId ) );
}

void FecUnit::carryOut( FecId fecId ) {
   if ( --*queued_.find( fecId ) == 0 ) {
      queued_.erase( fecId );
   }
   sync( fecId );
}

// What the FEC is to be made of now. False when it is not requested, or when the content of the
// request, or the other agent's FEC, is not there.
bool FecUnit::wanted( FecId fecId, std::vector< FecVia >& vias, FecId& backup ) const {
   const FecIdToHwFecIdRequest& request = *platform_.request;
   if ( !request.hwFecIdRequestHas( fecId ) ) {
      return false;
   }
   if ( !fecId.ofLabelViaSet() ) {
      const Fib::Fec* const foreign = status_.foreignFec().find( fecId );
      vias = foreign ? foreign->via : std::vector< FecVia >();
      return foreign != nullptr;
   }
   const Fib::Fec* fec = request.fec().find( fecId );
   if ( fec == nullptr ) {
      fec = request.fec6().find( fecId );
   }
   if ( fec == nullptr ) {
      return false;
   }
   const auto own = fec->primaryVia();
   vias.assign( own.begin(), own.end() );
   backup = fec->backupFecId;
   return true;
}

// Brings the FEC in hardware to what is requested of it now.
void FecUnit::sync( FecId fecId ) {
   if ( syncing_ ) {
      held_.insert( fecId );
      return;
   }
   std::vector< FecVia > vias;
   FecId backup;
   noLongerWaits( fecId );
   const bool isWanted = wanted( fecId, vias, backup );
   const Ptr< HwFec >* const there = fecs_.find( fecId );
   if ( there && queued_.has( fecId ) ) {
      return; // a later operation on the FEC is queued and writes it
   }
   if ( !isWanted ) {
      remove( fecId );
      return;
   }
   Ptr< HwFec > fec = there ? *there : adopted( fecId, vias, backup );
   const bool kept = !there && fec; // adopted as it is, whether its interfaces are ready or not
   // An earlier driver's routes in this FEC, or in FECs that it protects, may have to go elsewhere.
   // While there are any, the FEC is not rewritten: it is given back, and the request gets another.
   const bool changes = there && ( fec->via != vias || fec->backupFecId != backup );
   const std::vector< FecId > before = changes ? foundBehind( *fec ) : std::vector< FecId >();
   const bool same = there && !changes; // it need not be written
   if ( !kept && !same && !ready( vias ) ) {
      waits( fecId, UnprogrammedReason::InterfaceNotReady );
      return;
   }
   if ( !before.empty() && room() < before.size() ) {
      waits( fecId, UnprogrammedReason::AdjacencyFull );
      return;
   }
   for ( const FecId taken : before ) { // the requests of the others get new FECs in their turns
      giveBack( taken, *fecs_.find( taken ) );
      if ( taken != fecId ) {
         push( taken );
      }
      fec = nullptr;
   }
   Ptr< HwFec > backupBefore;
   if ( !fec && !hasRoomFor( fecId ) ) {
      fec = takenOver( fecId, vias );
      fec = fec ? fec : replaced( fecId, vias );
      if ( !fec && !makeRoomFor( fecId ) ) {
         waits( fecId, UnprogrammedReason::AdjacencyFull );
         return;
      }
      backupBefore = fec ? fec->backup : nullptr;
   } else if ( kept ) {
      backupBefore = fec->backup;
   }
   if ( !fec ) {
      fec = Vel::make< HwFec >( nextHwId_++ );
      byHwId_.emplace( fec->hwId, fec.get() );
   }
   const FecId idBefore = std::exchange( fec->fecId, fecId );
   fecs_.emplace( fecId, fec );
   contentIs( *fec, vias, backup );
   fec->vrfName = platform_.request->hwFecIdRequest( fecId ).vrfName;
   answer( *fec );
   countFecs();
   changed( fecId );
   if ( idBefore != FecId() && idBefore != fecId ) {
      // A FEC got the place of another one: by the answer above, the library has moved the routes.
      platform_.response->hwFecIdDel( idBefore );
      changed( idBefore );
   }
   if ( backupBefore && backupBefore != fec->backup ) {
      maybeRelease( *backupBefore );
      retrySoon(); // a waiting request may use the backup that is left, or its place
   }
}

bool FecUnit::behind( const HwFec& fec ) const {
   std::vector< FecVia > vias;
   FecId backup;
   return fec.fecId.ofLabelViaSet() && // another agent's content is not the library's to wait for
          ( queued_.has( fec.fecId ) || waiting_.has( fec.fecId ) ) &&
          wanted( fec.fecId, vias, backup ) && ( fec.via != vias || fec.backupFecId != backup );
}

// Tells the library that hardware has the FEC as it is requested now.
void FecUnit::answer( const HwFec& fec ) {
   platform_.response->hwFecIdIs(
      fec.fecId, { fec.hwId, platform_.request->hwFecIdRequest( fec.fecId ).version,
                   fec.recovered != 0 ? fec.hwId : 0 } );
}

void FecUnit::noLongerWaits( FecId fecId ) {
   status_.waitingFecDel( fecId );
   waiting_.erase( fecId );
}

// While the FEC's backup waits to be rewritten, frames of the new route must not leave by the
// backup's former content. The FEC loses the backup until the backup's operation has had its turn.
void FecUnit::routeComes( HwFec& fec ) {
   if ( fec.backup && behind( *fec.backup ) ) {
      backupIs( fec, nullptr );
      report( fec );
   }
}

void FecUnit::countFecs() {
   status_.fecs_ = fecs_.size() + recovered_.size();
}

// The FEC gets another content. FECs whose requests no longer name it as their backup, and which
// still have it in hardware, lose it now: the new content was never meant for them.
void FecUnit::leaveFormerPrimaries( HwFec& fec ) {
   const std::set< FecId >* const found = dependents_.find( fec.fecId );
   const std::set< FecId > users = found ? *found : std::set< FecId >();
   for ( const FecId user : users ) {
      HwFec* const primary = this->fec( user );
      if ( primary && primary->backup.get() == &fec && !namesAsBackup( user, fec.fecId ) ) {
         backupIs( *primary, nullptr );
      }
   }
}

void FecUnit::contentIs( HwFec& fec, const std::vector< FecVia >& vias, FecId backup ) {
   dependsOn( fec, false );
   if ( fec.backupFecId != backup ) {
      stateIs( fec, AdjHwState::unknown ); // the reported state is that of the former protection
   }
   if ( fec.via != vias ) {
      leaveFormerPrimaries( fec );
   }
   fec.via = vias;
   fec.backupFecId = backup;
   HwFec* const protecting = this->fec( backup );
   // A backup that waits to be rewritten still has the content that it had for other FECs. It
   // becomes this one's backup when it has been rewritten, in `changed`.
   const bool old = waiting_.has( backup ) || ( protecting && behind( *protecting ) );
   backupIs( fec, protecting == fec.backup.get() || !old ? protecting : nullptr );
   dependsOn( fec, true );
}

// Adds the FEC to the dependents of its backup and of the FECs that its vias lead into, or removes
// it from there.
void FecUnit::dependsOn( const HwFec& fec, bool depends ) {
   const auto enter = [&]( FecId other ) {
      if ( other == FecId() ) {
         return;
      }
      std::set< FecId >& users = *dependents_.emplace( other ).first;
      if ( depends ) {
         users.insert( fec.fecId );
      } else {
         users.erase( fec.fecId );
      }
      if ( users.empty() ) {
         dependents_.erase( other );
      }
   };
   enter( fec.backupFecId );
   for ( const FecVia& via : fec.via ) {
      enter( Fib::FecIdIntfId::intfIdToFecId( via.intf ) );
   }
}

// The FEC has been made, rewritten or removed: FECs that lead into it may have another way now.
void FecUnit::changed( FecId fecId ) {
   HwFec* const now = fec( fecId );
   if ( now ) {
      report( *now );
   }
   const std::set< FecId >* const found = dependents_.find( fecId );
   const std::set< FecId > users = found ? *found : std::set< FecId >();
   for ( const FecId user : users ) {
      HwFec* const primary = fec( user );
      if ( primary == nullptr ) {
         continue;
      }
      if ( primary->backupFecId == fecId && ( now == nullptr || namesAsBackup( user, fecId ) ) ) {
         backupIs( *primary, now );
      }
      report( *primary );
   }
}

// Whether the FEC's request names the other one as its backup. Hardware may still have an earlier
// backup, whose id may be that of another FEC by now.
bool FecUnit::namesAsBackup( FecId fecId, FecId other ) const {
   std::vector< FecVia > vias;
   FecId backup;
   return wanted( fecId, vias, backup ) && backup == other;
}

size_t FecUnit::capacity() const {
   return faults_.capacity( FaultKind::fecCapacity, clock_.now(), capacity_ );
}

// How many more FECs fit.
size_t FecUnit::room() const {
   const size_t limit = capacity();
   const size_t there = fecs_.size() + recovered_.size();
   return limit == 0 ? std::numeric_limits< size_t >::max() : limit - std::min( limit, there );
}

// The FECs that have to be given back together before this one changes: those that it protects and
// in which routes of an earlier driver are left, and the FEC itself. Empty when no such routes are
// left in it or in what it protects.
std::vector< FecId > FecUnit::foundBehind( const HwFec& fec ) const {
   std::vector< FecId > behind;
   const std::set< FecId >* const users = dependents_.find( fec.fecId );
   if ( users && !recoveredByContent_.empty() ) { // on hardware that an earlier driver has left
      for ( const FecId user : *users ) {
         const HwFec* const primary = this->fec( user );
         if ( primary && primary->backup.get() == &fec && primary->recovered != 0 ) {
            behind.push_back( user );
         }
      }
   }
   if ( fec.recovered != 0 || fec.protectsFound != 0 || !behind.empty() ) {
      behind.push_back( fec.fecId ); // last, so that those before it still have it as their backup
   }
   return behind;
}

bool FecUnit::hasRoomFor( FecId fecId ) const {
   return room() != 0 || fecs_.has( fecId );
}

bool FecUnit::ready( const std::vector< FecVia >& vias ) const {
   return std::ranges::none_of(
      vias, [this]( const FecVia& via ) { return faults_.notReady( via.intf, clock_.now() ); } );
}

// Hardware cannot take the FEC now. What is in hardware stays as it was.
void FecUnit::waits( FecId fecId, UnprogrammedReason reason ) {
   ++status_.refused_;
   waiting_.insert( fecId );
   status_.waitingFecIs( fecId, reason );
   if ( reason == UnprogrammedReason::AdjacencyFull && !retrying_ &&
        platform_.request->mayReplaces() != 0 ) {
      retrySoon();
   }
}

void FecUnit::retrySoon() {
   if ( !waiting_.empty() && !std::exchange( retryQueued_, true ) ) {
      queue_.push( { .kind = OperationKind::fecsRetried } );
   }
}

void FecUnit::retryWaiting() {
   retryQueued_ = false;
   retrying_ = true;
   for ( const bool takeOut : { false, true } ) {
      mayTakeOut_ = takeOut;
      for ( const FecId fecId : waiting_ ) {
         sync( fecId );
      }
   }
   retrying_ = mayTakeOut_ = false;
}

// Routes that still forward into the FEC meet one without a way out.
void FecUnit::remove( FecId fecId ) {
   placeTakenBy_.erase( fecId );
   const Ptr< HwFec >* const found = fecs_.find( fecId );
   if ( found == nullptr ) {
      return;
   }
   const Ptr< HwFec > fec = *found;
   if ( fec->routes != 0 && placeBack( fecId, *fec ) ) {
      return;
   }
   if ( fec->recovered == fec->routes && ( fec->recovered != 0 || fec->protectsFound != 0 ) ) {
      giveBack( fecId, fec );
      return;
   }
   if ( !platform_.request->hwFecIdRequestHas( fecId ) && fec->routes != 0 &&
        status_.forgotten_ == 0 ) { // lost operations leave routes that the library has moved
      status_.breachLog_.add( joinText( "FEC ", fecId, " is no longer requested while ",
                                        fec->routes, " routes forward into it" ) );
   }
   stateIs( *fec, AdjHwState::unknown );
   contentIs( *fec, {}, {} );
   byHwId_.erase( fec->hwId );
   fecs_.erase( fecId );
   countFecs();
   platform_.response->hwFecIdDel( fecId );
   changed( fecId );
   retrySoon(); // there is room again
}

// The FEC of this driver whose routes all wait for just this request, to be rewritten; or null.
Ptr< HwFec > FecUnit::takenOver( FecId fecId, const std::vector< FecVia >& vias ) {
   const FecId left = platform_.request->mayTakeOver( fecId );
   const Ptr< HwFec >* const found = fecs_.find( left );
   if ( found == nullptr || !fecId.ofLabelViaSet() || !left.ofLabelViaSet() ||
        !platform_.request->hwFecIdRequestHas( left ) || ( *found )->recovered != 0 ||
        !fitsInPlace( **found, vias ) ) {
      return nullptr;
   }
   Ptr< HwFec > fec = *found;
   stateIs( *fec, AdjHwState::unknown );
   dependsOn( *fec, false );
   fecs_.erase( left );
   placeTakenBy_.set( left, fecId );
   return fec;
}

// The FEC got the place of another one, and its request goes before the library has heard of that.
// For the library its routes are still in the other FEC, so it becomes that one again. False when
// the FEC has not got anybody's place.
bool FecUnit::placeBack( FecId fecId, HwFec& fec ) {
   for ( const auto& [left, by] : placeTakenBy_ ) {
      std::vector< FecVia > vias;
      FecId backup;
      if ( by != fecId || fecs_.has( left ) || !wanted( left, vias, backup ) ) {
         continue;
      }
      stateIs( fec, AdjHwState::unknown );
      dependsOn( fec, false );
      fec.fecId = left;
      fecs_.emplace( left, Ptr< HwFec >( &fec ) );
      fecs_.erase( fecId );
      contentIs( fec, vias, backup );
      noLongerWaits( left );
      answer( fec );
      platform_.response->hwFecIdDel( fecId );
      changed( fecId );
      changed( left );
      placeTakenBy_.erase( left );
      return true;
   }
   return false;
}

// Whether the FEC may be rewritten under its routes. A FEC that protects another may not, since
// that one's frames may be in it. Neither may one whose routes do something to the label, now or
// with the new vias: routes cannot be rewritten in one step with their FEC.
bool FecUnit::fitsInPlace( const HwFec& fec, const std::vector< FecVia >& vias ) {
   return fec.protects == 0 && !fec.routesOperate &&
          std::ranges::none_of(
             vias, []( const FecVia& via ) { return via.labelAction == MplsLabelAction::none; } );
}

void FecUnit::backupIs( HwFec& fec, Ptr< HwFec > backup ) {
   const Ptr< HwFec > before = std::exchange( fec.backup, std::move( backup ) );
   if ( before == fec.backup ) {
      return;
   }
   if ( before ) {
      --before->protects;
      before->protectsFound -= fec.found;
      before->protectsStaying -= fec.stays;
      reckon( *before );
   }
   if ( HwFec* const now = fec.backup.get() ) {
      ++now->protects;
      now->protectsFound += fec.found;
      now->protectsStaying += fec.stays;
      reckon( *now );
   }
}

HwFec* FecUnit::fec( U64 hwId ) const {
   HwFec* const* const found = byHwId_.find( hwId );
   return found ? *found : nullptr;
}

HwFec* FecUnit::fec( FecId fecId ) const {
   const Ptr< HwFec >* const found = fecs_.find( fecId );
   return found ? found->get() : nullptr;
}

} // namespace Vel::Driver
