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
      platform_.startup->adjSyncDoneIs( false ); // an earlier start may have left it set
   }
   countFecs();
}

// Sets whether the FEC is an earlier driver's that no request has taken over.
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

// Counts the earlier driver's FECs that cannot make room for others: a FEC with routes that
// `mayReplace` does not offer, and its backup. Called wherever one of these may have changed.
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

// A FEC that was taken over loses its request, or the request changes, while routes of the earlier
// driver are left in it or in what it protects: it is the earlier driver's again, as it was found.
void FecUnit::giveBack( FecId fecId, Ptr< HwFec > fec ) {
   stateIs( *fec, AdjHwState::unknown );
   dependsOn( *fec, false );
   fec->fecId = {};
   fec->backupFecId = {};
   fecs_.erase( fecId );
   foundIs( *fec, true );
   platform_.response->hwFecIdDel( fecId );
   changed( fecId );
   retrySoon(); // `mayReplace` may have named it while it was taken over
}

void FecUnit::addTo( HwState& state ) const {
   state.nextHwId = nextHwId_;
   const auto add = [&state, this]( const HwFec& fec ) {
      const bool has = fec.backup && byHwId_.has( fec.backup->hwId ); // else it was taken out
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
      // Protected FECs come first, since they tell what the FEC of their backup was. All sync ids
      // come before any content, since a FEC with equal content may be that of another's sync id.
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

// Removes all that the earlier driver left. Routes go first, so that none leads into a FEC that is
// gone.
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

// Carries out a held request, after that of its backup: a FEC may only be taken over together with
// its backup. A FEC that is nothing but a backup has no sync id; it is found by what the FEC of its
// primary's sync id has for a backup (`backupHint_`).
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
      return; // it stays held until contents are compared
   }
   held_.erase( fecId );
   sync( fecId );
}

// The FEC of the earlier driver that has exactly the wanted content, found by the request's sync
// id, by what it protected, or by its content alone; null when there is none. A FEC with another
// content is not rewritten, since routes that are to go elsewhere still forward by it.
const Ptr< HwFec >* FecUnit::matched( FecId fecId, const std::vector< FecVia >& vias, FecId backup,
                                      bool byContent ) const {
   const auto fits = [&]( U64 hwId ) {
      const Ptr< HwFec >* const found = recovered_.find( hwId );
      const HwFec* const was = found ? ( *found )->backup.get() : nullptr;
      const HwFec* const is = fec( backup );
      // Another request may have taken over the FEC that was its backup: then an equal one will do.
      // A requested backup that has not been made yet cannot be the one that it had.
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

// Takes out FECs of the earlier driver, with their routes, that wait for this request or for
// several. FECs whose routes wait for one other request are left to that request. Nothing is taken
// out when not all requests would fit then: routes that forward are worth more than some that
// might.
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
