// FecUnit: what is particular to a start on hardware that an earlier driver has left. Matching,
// giving back, and making room.

#include "driver/FecUnit.h"
#include "driver/SwitchStatus.h"

namespace Vel::Driver {

using Fib::FecId;
using Fib::FecVia;

namespace {

U64 contentHash( const std::vector< FecVia >& vias ) {
   U64 mixed = vias.size();
   for ( const FecVia& via : vias ) {
      mixed = mixBits( mixed + via.nextHop.hash() );
      mixed = mixBits( mixed + via.intf.hash() );
      mixed = mixBits( mixed + via.labelStack.hash() + static_cast< U64 >( via.labelAction ) );
   }
   return mixed;
}

} // namespace

void FecUnit::recover( const HwState& state ) {
   nextHwId_ = state.nextHwId;
   for ( const HwState::Fec& before : state.fecs ) {
      const Ptr< HwFec > fec = Vel::make< HwFec >( before.hwId );
      fec->via = before.via;
      foundIs( *fec, true );
      byHwId_.emplace( before.hwId, fec.get() );
   }
   for ( const HwState::Route& before : state.routes ) {
      if ( HwFec* const there = fec( before.hwId ) ) {
         there->routesOperate |= before.operation.action != MplsLabelAction::none;
      }
   }
   for ( const HwState::Fec& before : state.fecs ) {
      if ( const Ptr< HwFec >* const backup = recovered_.find( before.backupHwId ) ) {
         backupIs( **recovered_.find( before.hwId ), *backup );
      }
   }
   syncing_ = !recovered_.empty();
   if ( syncing_ && platform_.startup ) {
      platform_.startup->adjSyncDoneIs( false ); // what it says is of another start
   }
   countFecs();
}

// Whether it is one of before that nobody has taken over.
void FecUnit::foundIs( HwFec& fec, bool found ) {
   fec.found = found;
   if ( found ) {
      recovered_.emplace( fec.hwId, Ptr< HwFec >( &fec ) );
      recoveredByContent_.emplace( contentHash( fec.via ) ).first->push_back( fec.hwId );
   } else {
      recovered_.erase( fec.hwId );
   }
   if ( fec.backup ) {
      found ? ++fec.backup->protectsFound : --fec.backup->protectsFound;
   }
   reckon( fec );
}

// FECs of before that hardware keeps for now: those of routes that wait for nothing, and what
// protects them. Asked wherever one of these may have changed.
void FecUnit::reckon( HwFec& fec ) {
   const bool stays =
      fec.found && ( ( fec.routes != 0 && !platform_.request->mayReplaceHas( fec.hwId ) ) ||
                     fec.protectsStaying != 0 );
   if ( stays == fec.stays ) {
      return;
   }
   fec.stays = stays;
   stays ? ++staying_ : --staying_;
   if ( fec.backup ) {
      stays ? ++fec.backup->protectsStaying : --fec.backup->protectsStaying;
      reckon( *fec.backup );
   }
}

// Taken over, and not wanted any more before one of its routes was written: as it was found.
void FecUnit::giveBack( FecId fecId, Ptr< HwFec > fec ) {
   stateIs( *fec, AdjHwState::unknown );
   dependsOn( *fec, false );
   fec->fecId = {};
   fec->backupFecId = {};
   fecs_.erase( fecId );
   foundIs( *fec, true );
   platform_.response->hwFecIdDel( fecId );
   changed( fecId );
   retrySoon(); // it may have been offered all along
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
   if ( platform_.request->startsAfresh() ) {
      clearFound();
   }
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

// Without their routes, and so not one that a route could still lead to.
void FecUnit::clearFound() {
   takeFoundOut_();
   for ( const bool primaries : { true, false } ) {
      for ( const auto& [hwId, fec] : recovered_ ) {
         if ( primaries ) {
            backupIs( *fec, nullptr );
         } else {
            const Ptr< HwFec > keep = fec;
            byHwId_.erase( keep->hwId );
            foundIs( *keep, false );
         }
      }
   }
   countFecs();
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
      return; // the operation that is queued brings it in line
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
      // One that is still to be made is not what was.
      const bool sameBackup =
         backup == FecId()
            ? was == nullptr
            : was && is && ( was == is || ( was->via == is->via && !was->backup && !is->backup ) );
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
   foundIs( *kept, false );
   ++status_.fecsAdopted_;
   return kept;
}

// The FEC of the earlier driver whose routes all wait for just this request, to be rewritten; or
// null.
Ptr< HwFec > FecUnit::replaced( FecId fecId, const std::vector< FecVia >& vias ) {
   if ( !fecId.ofLabelViaSet() ) {
      return nullptr;
   }
   for ( const auto& [hwId, wantedBy] : platform_.request->mayReplace() ) {
      const Ptr< HwFec >* const found = wantedBy == fecId ? recovered_.find( hwId ) : nullptr;
      if ( found && ( *found )->recovered == ( *found )->routes && fitsInPlace( **found, vias ) ) {
         Ptr< HwFec > fec = *found;
         foundIs( *fec, false );
         fec->replaced = true;
         return fec;
      }
   }
   return nullptr;
}

// Takes out FECs of the earlier driver whose routes all wait for this request, or for several. What
// waits for one other request is left to that. Where not all that is requested fits, what forwards
// is worth more than what might.
bool FecUnit::makeRoomFor( FecId fecId ) {
   if ( !mayTakeOut_ || platform_.request->hwFecIdRequests() + staying_ > capacity() ) {
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
   if ( syncing_ || fec.routes != 0 || fec.protects != 0 || !fec.found ) {
      return;
   }
   const Ptr< HwFec > keep = &fec;
   const Ptr< HwFec > backup = fec.backup;
   backupIs( fec, nullptr );
   byHwId_.erase( fec.hwId );
   foundIs( fec, false );
   countFecs();
   if ( backup ) {
      maybeRelease( *backup );
   }
   retrySoon();
}

} // namespace Vel::Driver
