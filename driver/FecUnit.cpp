#include "driver/FecUnit.h"

#include <algorithm>

#include "driver/SwitchStatus.h"
#include "platform/Trace.h"

namespace Vel::Driver {

using Fib::FecId;
using Fib::FecVia;
using Mpls::Hardware::L2Via;

namespace {

constexpr U32 maxDepth = 8; // of FECs in FECs

// A label FEC is requested with its content; all others are other agents'.
bool isLabelFec( FecId fecId ) {
   return fecId.adjType() == Fib::AdjType::mplsV4Adj || fecId.adjType() == Fib::AdjType::mplsV6Adj;
}

U64 contentHash( const std::vector< FecVia >& vias ) {
   U64 mixed = vias.size();
   for ( const FecVia& via : vias ) {
      mixed = mixBits( mixed + via.nextHop.hash() );
      mixed = mixBits( mixed + via.intf.hash() );
      mixed = mixBits( mixed + via.labelStack.hash() + static_cast< U64 >( via.labelAction ) );
   }
   return mixed;
}

std::set< MplsLabelAction > actionsOf( const std::vector< FecVia >& vias ) {
   std::set< MplsLabelAction > actions;
   for ( const FecVia& via : vias ) {
      actions.insert( via.labelAction );
   }
   return actions;
}

} // namespace

class FecUnit::RequestReactor : public FecIdToHwFecIdRequest::Reactor {
 public:
   RequestReactor( FecUnit& owner, const FecIdToHwFecIdRequest* request ) : owner_( owner ) {
      notifierIs( request );
   }
   void onFec( FecId fecId ) override { owner_.push( fecId ); }
   void onFec6( FecId fecId ) override { owner_.push( fecId ); }
   void onHwFecIdRequest( FecId fecId ) override { owner_.push( fecId ); }
   void onMayReplace( AdjSyncId syncId ) override {
      if ( notifier()->mayReplaceHas( syncId ) && !owner_.waiting_.empty() ) {
         owner_.queueOffers();
      }
   }
   void onSyncRequestsReady() override {
      if ( notifier()->syncRequestsReady() ) {
         owner_.queue_.push( { .kind = OperationKind::syncRequested } );
      } else if ( owner_.platform_.startup ) {
         owner_.platform_.startup->adjSyncDoneIs( false ); // another start
      }
   }

 private:
   FecUnit& owner_;
};

/// The operation that a frame's top label meets on a way: so many labels come off, then these go
/// on, and it leaves.
struct FecUnit::Way {
   U64 hash;
   U32 depth = 0;
   U32 popped = 0;
   std::vector< U32 > pushed{}; // top first
   Mpls::PayloadType payloadType = Mpls::PayloadType::undefined;
   Mpls::TtlMode ttlMode = Mpls::TtlMode::undefined;
   NextHopInfo exit{};

   /// Adds what a via does with the label, behind what was done before.
   void add( const FecVia& via ) {
      if ( via.labelAction == MplsLabelAction::pop || via.labelAction == MplsLabelAction::swap ) {
         if ( pushed.empty() ) {
            ++popped;
            payloadType = via.payloadType;
            ttlMode = via.ttlMode;
         } else {
            pushed.erase( pushed.begin() );
         }
      }
      for ( size_t i = via.labelStack.stackSize(); i > 0; --i ) {
         pushed.insert( pushed.begin(), via.labelStack.label( i - 1 ).value() );
      }
   }
};

FecUnit::FecUnit( FecPlatform platform, OperationQueue& queue, SwitchStatus& status,
                  const FaultPlan& faults, const Links& links, const Clock& clock )
   : platform_( std::move( platform ) ),
     queue_( queue ),
     status_( status ),
     faults_( faults ),
     links_( links ),
     clock_( clock ),
     reactor_( std::make_unique< RequestReactor >( *this, platform_.request.get() ) ) {
   for ( const auto& [fecId, request] : platform_.request->hwFecIdRequest() ) {
      push( fecId );
   }
}

FecUnit::~FecUnit() = default;

// --- Other agents.

void FecUnit::foreignFecIs( FecId fecId, std::vector< FecVia > vias ) {
   *foreign_.emplace( fecId ).first = std::move( vias );
   push( fecId );
}

void FecUnit::foreignFecDel( FecId fecId ) {
   foreign_.erase( fecId );
   push( fecId );
}

void FecUnit::tunnelIs( IntfId intf, std::vector< FecVia > vias ) {
   *tunnels_.emplace( intf ).first = std::move( vias );
   reportStates();
}

void FecUnit::tunnelDel( IntfId intf ) {
   tunnels_.erase( intf );
   reportStates();
}

void FecUnit::reportStates() {
   for ( const auto& [fecId, fec] : fecs_ ) {
      report( *fec );
   }
}

void FecUnit::report( const HwFec& fec ) {
   if ( fec.backupFecId != FecId() ) {
      stateIs( fec, stateOf( fec ) );
   }
}

AdjHwState FecUnit::stateOf( const HwFec& fec ) const {
   std::string why;
   Way primary{ .hash = 0 };
   if ( follow( fec.via, primary, why ) ) {
      return AdjHwState::primaryActive;
   }
   Way backup{ .hash = 0 };
   return follow( fec, backup, why ) ? AdjHwState::backupActive : AdjHwState::down;
}

// An unknown state is none: the entry goes.
void FecUnit::stateIs( const HwFec& fec, AdjHwState state ) {
   AdjHwStatus* const status = platform_.l3Status->adjHwStatus().get();
   if ( status == nullptr ) {
      return;
   }
   for ( const auto& [vrfId, vrf] : platform_.l3Status->vrfName() ) {
      if ( vrf == fec.vrfName ) {
         const Fib::GlobalFecId id{ vrfId, fec.fecId };
         if ( state == AdjHwState::unknown ) {
            status->adjHwStateDel( id );
         } else {
            status->adjHwStateIs( id, state );
         }
         return;
      }
   }
}

// --- Requests.

void FecUnit::push( FecId fecId ) {
   queue_.push( { .kind = OperationKind::fecChanged, .version = fecId.value() } );
}

// What the FEC is to be made of now; false when it is to go, or is still to come.
bool FecUnit::wanted( FecId fecId, std::vector< FecVia >& vias, FecId& backup ) const {
   const FecIdToHwFecIdRequest& request = *platform_.request;
   if ( !request.hwFecIdRequestHas( fecId ) ) {
      return false;
   }
   if ( !isLabelFec( fecId ) ) {
      const std::vector< FecVia >* const foreign = foreign_.find( fecId );
      vias = foreign ? *foreign : std::vector< FecVia >();
      return foreign != nullptr;
   }
   const Fib::Fec* fec = request.fec().find( fecId );
   if ( fec == nullptr ) {
      fec = request.fec6().find( fecId );
   }
   if ( fec == nullptr ) {
      return false;
   }
   vias = fec->via;
   backup = fec->backupFecId;
   if ( backup != FecId() && !vias.empty() ) {
      vias.pop_back(); // the way into the backup
   }
   return true;
}

void FecUnit::sync( FecId fecId ) {
   if ( syncing_ ) {
      held_.insert( fecId );
      return;
   }
   std::vector< FecVia > vias;
   FecId backup;
   waiting_.erase( fecId );
   status_.waitingFecDel( fecId );
   if ( !wanted( fecId, vias, backup ) ) {
      remove( fecId );
      return;
   }
   const Ptr< HwFec >* const there = fecs_.find( fecId );
   Ptr< HwFec > fec = there ? *there : adopted( fecId, vias, backup );
   const bool kept = !there && fec; // as it is, whatever its interfaces do
   // Routes that are found in it may be to go elsewhere: it is rewritten only when they have gone.
   const bool another =
      there && fec->recovered != 0 && ( fec->via != vias || fec->backupFecId != backup );
   if ( !kept && !ready( vias ) ) {
      waits( fecId, UnprogrammedReason::InterfaceNotReady );
      return;
   }
   if ( another && full() ) {
      waits( fecId, UnprogrammedReason::AdjacencyFull );
      return;
   }
   if ( another ) {
      giveBack( fecId, fec );
      fec = nullptr;
   }
   Ptr< HwFec > backupBefore;
   if ( !fec && !hasRoomFor( fecId ) ) {
      fec = replaced( fecId, vias );
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
   fec->fecId = fecId;
   fecs_.emplace( fecId, fec );
   contentIs( *fec, vias, backup );
   fec->vrfName = platform_.request->hwFecIdRequest( fecId ).vrfName;
   platform_.response->hwFecIdIs( fecId, { fec->hwId } );
   status_.fecs_ = fecs_.size() + recovered_.size();
   changed( fecId );
   if ( backupBefore && backupBefore != fec->backup ) {
      maybeRelease( *backupBefore );
      retryWaiting(); // it may be what another one waits for
   }
}

void FecUnit::contentIs( HwFec& fec, const std::vector< FecVia >& vias, FecId backup ) {
   dependsOn( fec, false );
   if ( fec.backupFecId != backup ) {
      stateIs( fec, AdjHwState::unknown ); // of another protection
   }
   fec.via = vias;
   fec.backupFecId = backup;
   fec.backupIs( this->fec( backup ) );
   dependsOn( fec, true );
}

// Enters the FEC with those that its vias and its backup lead into, or takes it off there.
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

// The FEC is there, gone, or another: those that lead into it may have another way now.
void FecUnit::changed( FecId fecId ) {
   const HwFec* const now = fec( fecId );
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
      if ( primary->backupFecId == fecId ) {
         primary->backupIs( fec( fecId ) );
      }
      report( *primary );
   }
}

size_t FecUnit::capacity() const {
   return faults_.capacity( FaultKind::fecCapacity, clock_.now(), capacity_ );
}

bool FecUnit::full() const {
   const size_t room = capacity();
   return room != 0 && fecs_.size() + recovered_.size() >= room;
}

bool FecUnit::hasRoomFor( FecId fecId ) const {
   return !full() || fecs_.has( fecId );
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
      queueOffers();
   }
}

void FecUnit::queueOffers() {
   if ( !std::exchange( offersQueued_, true ) ) {
      queue_.push( { .kind = OperationKind::fecsOffered } );
   }
}

void FecUnit::offered() {
   offersQueued_ = false;
   retryWaiting();
}

void FecUnit::retryWaiting() {
   retryAgain_ = true;
   if ( std::exchange( retrying_, true ) ) {
      return;
   }
   while ( std::exchange( retryAgain_, false ) ) {
      for ( const bool takeOut : { false, true } ) {
         mayTakeOut_ = takeOut;
         for ( const FecId fecId : waiting_ ) {
            sync( fecId );
         }
      }
      mayTakeOut_ = false;
   }
   retrying_ = false;
}

// What still forwards into it meets a FEC without a way out.
void FecUnit::remove( FecId fecId ) {
   const Ptr< HwFec >* const found = fecs_.find( fecId );
   if ( found == nullptr ) {
      return;
   }
   const Ptr< HwFec > fec = *found;
   if ( fec->recovered == fec->routes && ( fec->recovered != 0 || protectsRecovered( *fec ) ) ) {
      giveBack( fecId, fec );
      return;
   }
   if ( !platform_.request->hwFecIdRequestHas( fecId ) && fec->routes != 0 ) {
      status_.breachLog_.add( joinText( "FEC ", fecId, " is no longer requested while ",
                                        fec->routes, " routes forward into it" ) );
   }
   contentIs( *fec, {}, {} );
   byHwId_.erase( fec->hwId );
   fecs_.erase( fecId );
   status_.fecs_ = fecs_.size() + recovered_.size();
   platform_.response->hwFecIdDel( fecId );
   changed( fecId );
   retryWaiting(); // there is room again
}

// --- Restart.

void FecUnit::recover( const HwState& state ) {
   nextHwId_ = state.nextHwId;
   for ( const HwState::Fec& before : state.fecs ) {
      const Ptr< HwFec > fec = Vel::make< HwFec >( before.hwId );
      fec->via = before.via;
      recoveredIs( fec );
      byHwId_.emplace( before.hwId, fec.get() );
   }
   for ( const HwState::Route& before : state.routes ) {
      if ( HwFec* const there = fec( before.hwId ) ) {
         there->routesOperate |= before.operation.action != MplsLabelAction::none;
      }
   }
   for ( const HwState::Fec& before : state.fecs ) {
      if ( const Ptr< HwFec >* const backup = recovered_.find( before.backupHwId ) ) {
         ( *recovered_.find( before.hwId ) )->backupIs( *backup );
      }
   }
   syncing_ = !recovered_.empty();
   status_.fecs_ = recovered_.size();
}

void FecUnit::recoveredIs( const Ptr< HwFec >& fec ) {
   recovered_.emplace( fec->hwId, fec );
   recoveredByContent_.emplace( contentHash( fec->via ) ).first->push_back( fec->hwId );
}

bool FecUnit::protectsRecovered( const HwFec& fec ) const {
   if ( fec.protects != 0 ) {
      for ( const auto& [hwId, other] : recovered_ ) {
         if ( other->backup.get() == &fec ) {
            return true;
         }
      }
   }
   return false;
}

// Taken over, and not wanted any more before one of its routes was written: as it was found.
void FecUnit::giveBack( FecId fecId, const Ptr< HwFec >& fec ) {
   stateIs( *fec, AdjHwState::unknown );
   dependsOn( *fec, false );
   fec->fecId = {};
   fec->backupFecId = {};
   fecs_.erase( fecId );
   recoveredIs( fec );
   platform_.response->hwFecIdDel( fecId );
   changed( fecId );
}

void FecUnit::addTo( HwState& state ) const {
   state.nextHwId = nextHwId_;
   const auto add = [&state, this]( const HwFec& fec ) {
      const bool has = fec.backup && byHwId_.has( fec.backup->hwId ); // it may have been taken out
      state.fecs.push_back( { fec.hwId, fec.via, has ? fec.backup->hwId : 0 } );
   };
   for ( const auto& [fecId, fec] : fecs_ ) {
      add( *fec );
   }
   for ( const auto& [hwId, fec] : recovered_ ) {
      add( *fec );
   }
}

void FecUnit::syncRequested() {
   if ( std::exchange( syncing_, false ) ) {
      // Those with a backup first: they know what their backup was. And none by its content alone
      // while it may be another's by its sync id.
      for ( const bool byContent : { false, true } ) {
         for ( const bool withBackup : { true, false } ) {
            for ( const FecId fecId : held_ ) {
               std::vector< FecVia > vias;
               FecId backup;
               if ( !withBackup || ( wanted( fecId, vias, backup ) && backup != FecId() ) ) {
                  syncHeld( fecId, byContent );
               }
            }
         }
      }
      backupHint_.clear();
      for ( const auto& [hwId, fec] : recovered_ ) {
         const Ptr< HwFec > keep = fec;
         maybeRelease( *keep );
      }
   }
   if ( platform_.startup ) {
      platform_.startup->adjSyncDoneIs( true );
   }
}

// A backup goes before what it protects, which may only be taken over together with it. A FEC that
// is nothing but a backup has no sync id; it is known by the one that it protects.
void FecUnit::syncHeld( FecId fecId, bool byContent ) {
   if ( !held_.has( fecId ) ) {
      return;
   }
   std::vector< FecVia > vias;
   FecId backup;
   const bool isWanted = wanted( fecId, vias, backup );
   if ( isWanted && backup != FecId() ) {
      const U64 syncId = platform_.request->adjSyncIdMap( fecId ).syncId;
      const Ptr< HwFec >* const before = recovered_.find( syncId );
      if ( before && ( *before )->backup ) {
         backupHint_.set( backup, ( *before )->backup->hwId );
      }
      syncHeld( backup, byContent );
   }
   if ( isWanted && !byContent && matched( fecId, vias, backup, false ) == nullptr ) {
      return; // its turn comes
   }
   held_.erase( fecId );
   sync( fecId );
}

// The FEC of the earlier driver that is just what is wanted, or null: by its sync id, by what it
// protected, or by its content alone. One with another content is not rewritten: routes that are to
// go elsewhere still forward by it.
const Ptr< HwFec >* FecUnit::matched( FecId fecId, const std::vector< FecVia >& vias, FecId backup,
                                      bool byContent ) const {
   const auto fits = [&]( U64 hwId ) {
      const Ptr< HwFec >* const found = recovered_.find( hwId );
      const HwFec* const was = found ? ( *found )->backup.get() : nullptr;
      const HwFec* const is = fec( backup );
      // Of two that are alike, another request may have taken the one that was its backup.
      const bool sameBackup =
         was == is || ( was && is && was->via == is->via && !was->backup && !is->backup );
      return found && ( *found )->via == vias && sameBackup ? found : nullptr;
   };
   for ( const U64 hwId :
         { platform_.request->adjSyncIdMap( fecId ).syncId, backupHint_.lookup( fecId ) } ) {
      if ( const Ptr< HwFec >* const found = fits( hwId ) ) {
         return found;
      }
   }
   const std::vector< U64 >* const same =
      byContent && !recovered_.empty() ? recoveredByContent_.find( contentHash( vias ) ) : nullptr;
   if ( same != nullptr ) {
      for ( const U64 hwId : *same ) {
         if ( const Ptr< HwFec >* const found = fits( hwId ) ) {
            return found;
         }
      }
   }
   return nullptr;
}

Ptr< HwFec > FecUnit::adopted( FecId fecId, const std::vector< FecVia >& vias, FecId backup ) {
   const Ptr< HwFec >* const found = matched( fecId, vias, backup, true );
   if ( found == nullptr ) {
      return nullptr;
   }
   Ptr< HwFec > kept = *found;
   recovered_.erase( kept->hwId );
   ++status_.fecsAdopted_;
   return kept;
}

// The FEC of the earlier driver whose routes all wait for just this request, to be rewritten; or
// null. Not one that protects another, whose frames may be in it; and not where what is done to the
// label would move between the routes and the FEC, which cannot be rewritten in one step.
Ptr< HwFec > FecUnit::replaced( FecId fecId, const std::vector< FecVia >& vias ) {
   if ( !isLabelFec( fecId ) ) {
      return nullptr;
   }
   for ( const auto& [hwId, wantedBy] : platform_.request->mayReplace() ) {
      const Ptr< HwFec >* const found = wantedBy == fecId ? recovered_.find( hwId ) : nullptr;
      if ( found && ( *found )->protects == 0 && !( *found )->routesOperate &&
           ( *found )->recovered == ( *found )->routes &&
           actionsOf( ( *found )->via ) == actionsOf( vias ) ) {
         const Ptr< HwFec > fec = *found;
         recovered_.erase( fec->hwId );
         fec->replaced = true;
         return fec;
      }
   }
   return nullptr;
}

// FECs of the earlier driver that hardware keeps for now: those of routes that wait for nothing, and
// what protects them.
size_t FecUnit::staying() const {
   size_t keeping = 0;
   std::set< U64 > backups;
   for ( const auto& [hwId, fec] : recovered_ ) {
      if ( fec->routes != 0 && !platform_.request->mayReplaceHas( hwId ) ) {
         ++keeping;
         if ( fec->backup && fec->backup->routes == 0 && recovered_.has( fec->backup->hwId ) ) {
            backups.insert( fec->backup->hwId );
         }
      }
   }
   return keeping + backups.size();
}

// Takes out FECs of the earlier driver whose routes all wait for this request, or for several. What
// waits for one other request is left to that. Where not all that is requested fits, what forwards
// is worth more than what might.
bool FecUnit::makeRoomFor( FecId fecId ) {
   if ( !mayTakeOut_ || platform_.request->hwFecIdRequests() + staying() > capacity() ) {
      return false;
   }
   for ( const auto& [hwId, wantedBy] : platform_.request->mayReplace() ) {
      if ( hasRoomFor( fecId ) ) {
         break;
      }
      const Ptr< HwFec >* const found = recovered_.find( hwId );
      if ( found && ( *found )->protects == 0 && ( wantedBy == FecId() || wantedBy == fecId ) ) {
         const Ptr< HwFec > fec = *found;
         takeRoutesOut_( *fec );
         maybeRelease( *fec );
      }
   }
   return hasRoomFor( fecId );
}

void FecUnit::maybeRelease( HwFec& fec ) {
   if ( syncing_ || fec.routes != 0 || fec.protects != 0 || !recovered_.has( fec.hwId ) ) {
      return;
   }
   const Ptr< HwFec > backup = fec.backup;
   fec.backupIs( nullptr );
   byHwId_.erase( fec.hwId );
   recovered_.erase( fec.hwId );
   status_.fecs_ = fecs_.size() + recovered_.size();
   if ( backup ) {
      maybeRelease( *backup );
   }
   retryWaiting();
}

HwFec* FecUnit::fec( U64 hwId ) const {
   HwFec* const* const found = byHwId_.find( hwId );
   return found ? *found : nullptr;
}

HwFec* FecUnit::fec( FecId fecId ) const {
   const Ptr< HwFec >* const found = fecs_.find( fecId );
   return found ? found->get() : nullptr;
}

// --- Ways out.

bool FecUnit::wayOut( const HwRoute& route, U64 flowHash, L2Via& out, std::string& why ) const {
   Way way{ .hash = flowHash };
   FecVia first;
   first.labelAction = route.operation.action;
   first.payloadType = route.operation.payloadType;
   first.ttlMode = route.operation.ttlMode;
   way.add( first );
   if ( !follow( *route.fec, way, why ) ) {
      return false;
   }
   if ( way.popped > 1 ) {
      why = joinText( "FEC ", route.fec->fecId, " takes more than the label of the route off" );
      return false;
   }
   out.intf = way.exit.l2Intf;
   out.vlanId = way.exit.vlanId;
   out.macAddr = way.exit.macAddr;
   out.payloadType = way.payloadType;
   out.ttlMode = way.ttlMode;
   out.labelStack = {};
   for ( const U32 label : way.pushed ) {
      if ( !out.labelStack.push( label ) ) {
         why = "more labels would go on than hardware can put there";
         return false;
      }
   }
   out.labelAction = way.popped == 0
                        ? way.pushed.empty() ? MplsLabelAction::none : MplsLabelAction::push
                     : way.pushed.empty() ? MplsLabelAction::pop
                                          : MplsLabelAction::swap;
   return true;
}

bool FecUnit::follow( const HwFec& fec, Way& way, std::string& why ) const {
   if ( ++way.depth > maxDepth ) {
      why = joinText( "FECs lead into each other more than ", maxDepth, " deep" );
      return false;
   }
   const Way before = way;
   if ( follow( fec.via, way, why ) ) {
      return true;
   }
   if ( !fec.backup ) {
      return false;
   }
   way = before;
   return follow( *fec.backup, way, why );
}

// One of the usable vias, picked by the flow.
bool FecUnit::follow( const std::vector< FecVia >& vias, Way& way, std::string& why ) const {
   const Way before = way;
   for ( size_t tried = 0; tried < vias.size(); ++tried ) {
      // From the via that the flow would take if all were usable.
      const FecVia& via = vias[( before.hash + tried ) % vias.size()];
      way = before;
      if ( follow( via, way, why ) ) {
         return true;
      }
   }
   if ( vias.empty() ) {
      why = "a FEC without vias";
   }
   return false;
}

std::string FecUnit::nameOf( IntfId intf ) const {
   return platform_.intfName ? platform_.intfName( intf ) : textOf( intf );
}

bool FecUnit::follow( const FecVia& via, Way& way, std::string& why ) const {
   if ( via.drop ) {
      why = "the primary vias are disabled";
      return false;
   }
   way.add( via );
   switch ( via.intf.kind() ) {
   case IntfId::Kind::hierarchicalFec:
   case IntfId::Kind::nexthopGroup: {
      const FecId fecId = Fib::FecIdIntfId::intfIdToFecId( via.intf );
      const HwFec* const next = fec( fecId );
      if ( next == nullptr ) {
         why = joinText( "FEC ", fecId, " is not there" );
         return false;
      }
      return follow( *next, way, why );
   }
   case IntfId::Kind::dynamicTunnel: {
      const std::vector< FecVia >* const tunnel = tunnels_.find( via.intf );
      if ( tunnel == nullptr || ++way.depth > maxDepth ) {
         why = joinText( "tunnel ", nameOf( via.intf ), " is not there" );
         return false;
      }
      return follow( *tunnel, way, why );
   }
   default:
      break;
   }
   if ( !links_.up( via.intf ) ) {
      why = joinText( "interface ", nameOf( via.intf ), " is down" );
      return false;
   }
   way.exit = platform_.resolve ? platform_.resolve( via.intf, via.nextHop ) : NextHopInfo();
   if ( !way.exit.resolved ) {
      why = joinText( "next hop ", via.nextHop, " on ", nameOf( via.intf ), " is not resolved" );
   }
   return way.exit.resolved;
}

} // namespace Vel::Driver
