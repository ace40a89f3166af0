#include "platform/lfib/LfibStatus.h"

#include <limits>

#include "platform/lfib/LfibCodec.h"

namespace Mpls {

namespace {

template< class Value >
U64 digestOfWords( const Value& value ) {
   std::array< U64, lfibMaxWords > words;
   return lfibDigest( words.data(), LfibCodec::encode( value, words.data() ) );
}

} // namespace

LfibStatus::LfibStatus( std::string name, std::span< const std::byte > region )
   : statusName_( std::move( name ) ), region_( region ) {
   reader_.corruptionHookIs( [this]( const LfibCorruption& corruption ) {
      corruptionsInc();
      if ( hook_ ) {
         hook_( corruption );
      }
   } );
   attach();
}

void LfibStatus::regionIs( std::span< const std::byte > region ) {
   VEL_ASSERT_TEXT( !polling_, "!polling", "a handler moves the region", "LfibStatus",
                    statusName_ );
   region_ = region;
   attach();
}

// What is found there is another publisher's, or another state of things.
void LfibStatus::attach() {
   started_ = false;
   announcedBefore_ = announced_;
   reader_.attach( region_ );
}

bool LfibStatus::pollPending() const {
   return !attached() || !started_ || stage_ != Stage::done || reader_.stale() || missed_ ||
          walkedBlind_ || ringLag() != 0;
}

U64 LfibStatus::announced() const {
   if ( !attached() || reader_.stale() ) {
      return 0;
   }
   announced_ = announcedBefore_ + reader_.ring().head() + 1;
   return announced_;
}

// --- Look-ups

U64 LfibStatus::digestOf( const LfibViaSet& viaSet ) {
   return digestOfWords( viaSet );
}

LfibViaSet LfibStatus::lfibViaSet( LfibViaSetKey key ) const {
   LfibViaSet viaSet = reader_.viaSet( key );
   viaSet.null() ? learnNull( viaSets_, key ) : learn( viaSets_, key, digestOf( viaSet ) );
   return viaSet;
}

template< class Via >
Via LfibStatus::viaAt( Via ( LfibReader::*lookUp )( LfibViaKey ) const, LfibViaKey key ) const {
   Via via = ( reader_.*lookUp )( key );
   via.key.empty() ? learnNull( vias_, key ) : learn( vias_, key, digestOfWords( via ) );
   return via;
}

LfibMplsVia LfibStatus::lfibMplsVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::mplsVia, key );
}
LfibExtFecVia LfibStatus::lfibExtFecVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::extFecVia, key );
}
LfibPwVia LfibStatus::lfibPwVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::pwVia, key );
}
LfibIpLookupVia LfibStatus::lfibIpLookupVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::ipLookupVia, key );
}
LfibVlanVia LfibStatus::lfibVlanVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::vlanVia, key );
}
LfibEvpnVlanAwareVia LfibStatus::lfibEvpnVlanAwareVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::evpnVlanAwareVia, key );
}
LfibEvpnVlanFloodVia LfibStatus::lfibEvpnVlanFloodVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::evpnVlanFloodVia, key );
}
LfibEvpnVlanAwareFloodVia LfibStatus::lfibEvpnVlanAwareFloodVia( LfibViaKey key ) const {
   return viaAt( &LfibReader::evpnVlanAwareFloodVia, key );
}

// --- Polling

U64 LfibStatus::ringLag() const {
   return attached() && started_ ? reader_.ring().head() - position_ : 0;
}

size_t LfibStatus::poll( size_t limit ) {
   VEL_ASSERT_TEXT( !polling_, "!polling", "a handler polls", "LfibStatus", statusName_ );
   const Vel::Ptr< LfibStatus > keep( this ); // a handler may release the last reference
   if ( reader_.stale() ) {
      attach();
      if ( !attached() ) {
         return 0; // what has been announced stands until there is something to compare it with
      }
   }
   if ( !started_ || missed_ || walkedBlind_ ) {
      resyncStart();
   }
   struct Polling {
      explicit Polling( bool& now ) : polling( now ) { polling = true; }
      ~Polling() { polling = false; }
      bool& polling;
   };
   const Polling polling( polling_ );
   constexpr size_t most = std::numeric_limits< size_t >::max();
   size_t budget = limit > most / 32 ? most : 16 * limit + 4096;
   size_t announced = 0;
   while ( announced < limit ) {
      if ( stage_ != Stage::done ) {
         if ( resyncStep( budget ) ) {
            ++announced;
         } else if ( stage_ != Stage::done ) {
            break; // the budget is used up
         }
         continue;
      }
      if ( batchAt_ == batchEnd_ && !fillBatch() ) {
         walkedAhead_ = false;
         break;
      }
      if ( batchAt_ != batchEnd_ ) {
         ++position_;
         announce( batch_[batchAt_++] );
         ++announced;
      }
   }
   return announced;
}

// False when there is nothing to announce. Changes that are lost start a resynchronisation.
bool LfibStatus::fillBatch() {
   batchAt_ = batchEnd_ = 0;
   const LfibRingRead read = reader_.ring().read( position_, batch_, batchEnd_ );
   if ( read != LfibRingRead::good ) {
      if ( read == LfibRingRead::rotten ) {
         reader_.reportRing( position_ );
      }
      resyncStart();
      return true;
   }
   for ( size_t i = 0; i < batchEnd_; ++i ) {
      if ( !LfibCodec::changeFits( batch_[i] ) ) {
         reader_.reportRing( position_ + i );
         resyncStart();
         return true;
      }
      if ( batch_[i].kind == LfibChange::Kind::route ) {
         reader_.prefetch( RouteKey::fromWord( batch_[i].keyWord ) );
      }
   }
   return batchEnd_ != 0;
}

// --- Announcing

// A handler that is told of a removal may find the key in the region again already. Then its
// look-up enters the key again, and if the ring loses what comes next, the key is not forgotten.
void LfibStatus::announceRoute( RouteKey key, bool present ) {
   announcedIs( routes_, key, present );
   notify< Reactor >( [&]( Reactor& reactor ) { reactor.onLfibRoute( key ); } );
}

void LfibStatus::announceViaSet( LfibViaSetKey key, bool present ) {
   announcedIs( viaSets_, key, present );
   notify< Reactor >( [&]( Reactor& reactor ) { reactor.onLfibViaSet( key ); } );
}

void LfibStatus::announceVia( LfibViaKey key, bool present ) {
   announcedIs( vias_, key, present );
   notify< Reactor >( [&]( Reactor& reactor ) { reactor.onLfibVia( key ); } );
}

void LfibStatus::announceDot1q( LfibDot1qTagToVlanKey key, uint16_t tag, bool present ) {
   if ( tag == lfibDot1qMap ) {
      if ( present ) {
         dot1qTagToVlanCollIs( key );
      } else {
         dot1qTagToVlanCollDel( key );
      }
   } else if ( !present ) {
      if ( LfibDot1qTagToVlan* const map = dot1qTagToVlanColl( key ) ) {
         map->dot1qTagToVlanIdDel( tag );
      }
   } else if ( const auto vlan = reader_.dot1qTagToVlan( key, tag ) ) {
      dot1qTagToVlanCollIs( key )->dot1qTagToVlanIdIs( tag, *vlan );
   }
}

void LfibStatus::announce( const LfibChange& change ) {
   switch ( change.kind ) {
   case LfibChange::Kind::route:
      return announceRoute( RouteKey::fromWord( change.keyWord ), !change.removed );
   case LfibChange::Kind::viaSet:
      return announceViaSet( LfibViaSetKey::fromWord( change.keyWord ), !change.removed );
   case LfibChange::Kind::via:
      return announceVia( LfibViaKey::fromWord( change.keyWord ), !change.removed );
   case LfibChange::Kind::dot1q:
      return announceDot1q( LfibDot1qTagToVlanKey( change.keyWord ), change.tag, !change.removed );
   case LfibChange::Kind::ready:
      return readyIs( !change.removed );
   }
}

// --- Resynchronisation

void LfibStatus::resyncStart() {
   started_ = true;
   announceAll_ = announceAll_ || walkedBlind_ || walkedAhead_;
   missed_ = walkedBlind_ = false;
   resyncsInc();
   // In this order: a flag that is set later has an entry behind the position, and is announced
   // when it comes.
   resyncReady_ = reader_.ready();
   position_ = reader_.ring().head();
   batchAt_ = batchEnd_ = 0;
   stageIs( Stage::goneRoutes );
}

void LfibStatus::stageIs( Stage stage ) {
   stage_ = stage;
   routePass_.reset();
   viaSetPass_.reset();
   viaPass_.reset();
   slot_ = 0;
   switch ( stage ) {
   case Stage::goneRoutes:
      routePass_.emplace( routes_, false );
      break;
   case Stage::goneViaSets:
      viaSetPass_.emplace( viaSets_ );
      break;
   case Stage::goneVias:
      viaPass_.emplace( vias_ );
      break;
   case Stage::dot1q:
      table_ = LfibTable::dot1q;
      break;
   case Stage::vias:
      table_ = LfibTable::mplsVia;
      break;
   case Stage::viaSets:
      table_ = LfibTable::viaSet;
      break;
   case Stage::routes:
      table_ = LfibTable::route;
      break;
   case Stage::goneDot1q:
   case Stage::done:
      break;
   }
}

// Announces one key, or stops with the budget used up or with nothing left to do.
bool LfibStatus::resyncStep( size_t& budget ) {
   while ( stage_ != Stage::done ) {
      if ( stageStep( budget ) ) {
         return true;
      }
      if ( budget == 0 ) {
         return false;
      }
      stageIs( static_cast< Stage >( static_cast< uint8_t >( stage_ ) + 1 ) );
   }
   announceAll_ = false;
   readyIs( resyncReady_ );
   return false;
}

bool LfibStatus::stageStep( size_t& budget ) {
   switch ( stage_ ) {
   case Stage::goneRoutes:
      return sweep( *routePass_, budget, [this]( RouteKey key ) {
         return gone( routes_, key, reader_.routeHas( key ) ) &&
                ( announceRoute( key, false ), true );
      } );
   case Stage::goneViaSets:
      return sweep( *viaSetPass_, budget, [this]( LfibViaSetKey key ) {
         return gone( viaSets_, key, reader_.viaSetHas( key ) ) &&
                ( announceViaSet( key, false ), true );
      } );
   case Stage::goneVias:
      return sweep( *viaPass_, budget, [this]( LfibViaKey key ) {
         return gone( vias_, key, reader_.viaHas( key ) ) && ( announceVia( key, false ), true );
      } );
   case Stage::goneDot1q:
      sweepDot1q();
      return false;
   case Stage::dot1q:
      return walk( LfibTable::dot1q, budget, [this]( const LfibReader::SliceKey& key ) {
         announceDot1q( LfibDot1qTagToVlanKey( key.word ), key.tag, true );
         return true;
      } );
   case Stage::vias:
      return walk(
         LfibTable::evpnVlanAwareFloodVia, budget, [this]( const LfibReader::SliceKey& key ) {
            const LfibViaKey viaKey = LfibViaKey::fromWord( key.word );
            return differs( vias_, viaKey, key.digest ) && ( announceVia( viaKey, true ), true );
         } );
   case Stage::viaSets:
      return walk( LfibTable::viaSet, budget, [this]( const LfibReader::SliceKey& key ) {
         const LfibViaSetKey viaSetKey = LfibViaSetKey::fromWord( key.word );
         return differs( viaSets_, viaSetKey, key.digest ) &&
                ( announceViaSet( viaSetKey, true ), true );
      } );
   case Stage::routes:
      return walk( LfibTable::deepRoute, budget, [this]( const LfibReader::SliceKey& key ) {
         const RouteKey routeKey = RouteKey::fromWord( key.word );
         return differs( routes_, routeKey, key.digest ) &&
                ( announceRoute( routeKey, true ), true );
      } );
   case Stage::done:
      break;
   }
   return false;
}

// What could not be read is not gone; whoever looked for it meanwhile may have found nothing.
template< class Known, class Key >
bool LfibStatus::gone( Known& known, Key key, bool has ) const {
   if ( has ) {
      return false;
   }
   if ( reader_.unread() ) {
      *known.find( key ) = unsure;
      return false;
   }
   return true;
}

// Goes on over what has been announced until one key is gone.
template< class Pass, class F >
bool LfibStatus::sweep( Pass& pass, size_t& budget, const F& announcedGone ) {
   for ( ; budget != 0; --budget ) {
      if ( !pass.next() ) {
         return false;
      }
      if ( announcedGone( pass.key() ) ) {
         return true;
      }
   }
   return false;
}

// Goes on over the tables from `table_` to `last` until a key has been announced.
template< class F >
bool LfibStatus::walk( LfibTable last, size_t& budget, const F& announced ) {
   for ( ;; ) {
      LfibReader::SliceKey key;
      if ( reader_.sliceNext( table_, slot_, budget, key ) ) {
         if ( announced( key ) ) {
            return true;
         }
         continue;
      }
      if ( budget == 0 || table_ == last ) {
         return false;
      }
      table_ = static_cast< LfibTable >( static_cast< uint8_t >( table_ ) + 1 );
      slot_ = 0;
   }
}

// Maps are few: not cut into slices.
void LfibStatus::sweepDot1q() {
   for ( const auto& [key, map] : dot1qTagToVlanColl() ) {
      if ( !reader_.dot1qTagToVlanCollHas( key ) ) {
         if ( !reader_.unread() ) {
            dot1qTagToVlanCollDel( key );
         }
         continue;
      }
      const Vel::Ptr< LfibDot1qTagToVlan > kept = map;
      for ( const auto& [tag, vlan] : kept->dot1qTagToVlanId() ) {
         if ( !reader_.dot1qTagToVlan( key, tag ) && !reader_.unread() ) {
            kept->dot1qTagToVlanIdDel( tag );
         }
      }
   }
}

} // namespace Mpls
