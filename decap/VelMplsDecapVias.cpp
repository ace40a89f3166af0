// MplsDecapSm: what each type of via asks the helper for.

#include <algorithm>
#include <utility>

#include "decap/VelMplsDecapSm.h"
#include "decap/VelMplsDecapTrace.h"

namespace Vel {

namespace {

constexpr auto success = Mpls::LfibHwProgrammingReturnCode::success;
constexpr auto lastRetried = Mpls::LfibHwProgrammingReturnCode::notReady;

} // namespace

// --- From the LFIB

// What is programmed is taken down once it is known what there is instead.
template< class Via >
void MplsDecapSm::processVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey, const Via& via,
                              void ( MplsDecapSm::*create )( Mpls::RouteKey, const Via& ) ) {
   if ( via.key.empty() && lfib_->unread() ) {
      keepUnread( routeKey );
      return;
   }
   deleteRoute( routeKey );
   Via leadsNowhere;
   leadsNowhere.key = viaKey;
   if ( !via.key.empty() && via != leadsNowhere ) {
      ( this->*create )( routeKey, via );
   }
}

void MplsDecapSm::processIpLookupVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( viaKey.viaType() == Mpls::viaTypeIpLookup,
                 "viaKey.viaType() == Mpls::viaTypeIpLookup()", routeKey );
   DECAP_TRACE( 7, "processIpLookupVia", " route ", routeKey, " via ", viaKey );
   processVia( routeKey, viaKey, lfib_->lfibIpLookupVia( viaKey ),
               &MplsDecapSm::createIpLookupVia );
}

void MplsDecapSm::processVlanVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( viaKey.viaType() == Mpls::viaTypeVlan, "viaKey.viaType() == Mpls::viaTypeVlan()",
                 routeKey );
   DECAP_TRACE( 7, "processVlanVia", " route ", routeKey, " via ", viaKey );
   processVia( routeKey, viaKey, lfib_->lfibVlanVia( viaKey ), &MplsDecapSm::createVlanVia );
}

void MplsDecapSm::processEvpnVlanFloodVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( viaKey.viaType() == Mpls::viaTypeEvpnVlanFlood,
                 "viaKey.viaType() == Mpls::viaTypeEvpnVlanFlood()", routeKey );
   DECAP_TRACE( 7, "processEvpnVlanFloodVia", " route ", routeKey, " via ", viaKey );
   processVia( routeKey, viaKey, lfib_->lfibEvpnVlanFloodVia( viaKey ),
               &MplsDecapSm::createEvpnVlanFloodVia );
}

void MplsDecapSm::processEvpnVlanAwareVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( viaKey.viaType() == Mpls::viaTypeEvpnVlanAware,
                 "viaKey.viaType() == Mpls::viaTypeEvpnVlanAware()", routeKey );
   DECAP_TRACE( 7, "processEvpnVlanAwareVia", " route ", routeKey, " via ", viaKey );
   processVia( routeKey, viaKey, lfib_->lfibEvpnVlanAwareVia( viaKey ),
               &MplsDecapSm::createEvpnVlanAwareVia );
}

void MplsDecapSm::processEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( viaKey.viaType() == Mpls::viaTypeEvpnVlanAwareFlood,
                 "viaKey.viaType() == Mpls::viaTypeEvpnVlanAwareFlood()", routeKey );
   DECAP_TRACE( 7, "processEvpnVlanAwareFloodVia", " route ", routeKey, " via ", viaKey );
   processVia( routeKey, viaKey, lfib_->lfibEvpnVlanAwareFloodVia( viaKey ),
               &MplsDecapSm::createEvpnVlanAwareFloodVia );
}

// --- Creating

bool MplsDecapSm::programmed( Mpls::RouteKey routeKey, ReturnCode rc ) {
   if ( rc == success ) {
      mappingsCreatedInc();
      return true;
   }
   if ( rc > lastRetried ) {
      codesIgnoredInc();
      return false;
   }
   mappingsRefusedInc();
   addRouteToUnprogrammed( routeKey, rc );
   return false;
}

void MplsDecapSm::recordViaType( Mpls::RouteKey routeKey, Mpls::LfibViaType viaType ) {
   routeViaTypeIs( routeKey, viaType );
   if ( !routeKey.singleLabel() ) {
      deeperRoutes_.emplace( routeKey.topLabel().value() ).first->insert( routeKey );
   }
}

void MplsDecapSm::createIpLookupVia( Mpls::RouteKey routeKey, const Mpls::LfibIpLookupVia& via ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( !routeViaTypeHas( routeKey ), "!routeViaTypeHas( routeKey )", routeKey );
   const L3::VrfName vrfName = via.vrfName.vrfName();
   const ReturnCode rc =
      helper_->createLabelToVrfMapping( routeKey.topLabel(), vrfName, via.payloadType );
   DECAP_TRACE( 3, "createIpLookupVia", " route ", routeKey, " via ", via, " create ",
                " rc: ", static_cast< U32 >( rc ) );
   if ( rc != success && rc <= lastRetried ) {
      doEndOfSync(); // what hardware has of before may be in the way
   }
   if ( programmed( routeKey, rc ) ) {
      recordViaType( routeKey, Mpls::viaTypeIpLookup );
      routeIpLookupViaIs( routeKey, via );
      VrfRouteKeySet* const set = vrfRouteKeySetIs( vrfName );
      DECAP_ASSERT( !set->routeKeySetHas( routeKey ),
                    "!vrfRouteKeySet( via.vrfName() )->routeKeySetHas( routeKey )", routeKey );
      set->routeKeySetIs( routeKey );
      deleteRouteFromUnprogrammed( routeKey );
   } else if ( unprogrammedRouteHas( routeKey ) && !vrfName.empty() ) {
      vrfUnprogrammedRouteKeySetIs( vrfName )->routeKeySetIs( routeKey );
      unprogrammedVrfIs( routeKey, vrfName );
   }
}

void MplsDecapSm::createVlanVia( Mpls::RouteKey routeKey, const Mpls::LfibVlanVia& via ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( !routeViaTypeHas( routeKey ), "!routeViaTypeHas( routeKey )", routeKey );
   const ReturnCode rc =
      helper_->createLabelToVlanMapping( routeKey.topLabel(), via.vlanId, false );
   DECAP_TRACE( 3, "createVlanVia", " route ", routeKey, " via ", via, " create ",
                " rc: ", static_cast< U32 >( rc ) );
   if ( programmed( routeKey, rc ) ) {
      recordViaType( routeKey, Mpls::viaTypeVlan );
      routeVlanViaIs( routeKey, via );
      deleteRouteFromUnprogrammed( routeKey );
   }
}

void MplsDecapSm::createEvpnVlanFloodVia( Mpls::RouteKey routeKey,
                                          const Mpls::LfibEvpnVlanFloodVia& via ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( !routeViaTypeHas( routeKey ), "!routeViaTypeHas( routeKey )", routeKey );
   const ReturnCode rc = helper_->createLabelToVlanMapping( routeKey.topLabel(), via.vlanId, true );
   DECAP_TRACE( 3, "createEvpnVlanFloodVia", " route ", routeKey, " via ", via, " create ",
                " rc: ", static_cast< U32 >( rc ) );
   if ( programmed( routeKey, rc ) ) {
      recordViaType( routeKey, Mpls::viaTypeEvpnVlanFlood );
      routeEvpnVlanFloodViaIs( routeKey, via );
      deleteRouteFromUnprogrammed( routeKey );
   }
}

void MplsDecapSm::createEvpnVlanAwareVia( Mpls::RouteKey routeKey,
                                          const Mpls::LfibEvpnVlanAwareVia& via ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_TRACE( 3, "createEvpnVlanAwareVia", " route ", routeKey, " via ", via );
   DECAP_ASSERT( !routeEvpnVlanAwareViaHas( routeKey ) || routeEvpnVlanAwareVia( routeKey ) == via,
                 "routeEvpnVlanAwareVia( routeKey ) == via", routeKey );
   recordViaType( routeKey, Mpls::viaTypeEvpnVlanAware );
   routeEvpnVlanAwareViaIs( routeKey, via );
   vlanAwareIs( routeKey, via.dot1qTagToVlanKey, false );
}

void MplsDecapSm::createEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey,
                                               const Mpls::LfibEvpnVlanAwareFloodVia& via ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_TRACE( 3, "createEvpnVlanAwareFloodVia", " route ", routeKey, " via ", via );
   DECAP_ASSERT( !routeEvpnVlanAwareFloodViaHas( routeKey ) ||
                    routeEvpnVlanAwareFloodVia( routeKey ) == via,
                 "routeEvpnVlanAwareFloodVia( routeKey ) == via", routeKey );
   recordViaType( routeKey, Mpls::viaTypeEvpnVlanAwareFlood );
   routeEvpnVlanAwareFloodViaIs( routeKey, via );
   vlanAwareIs( routeKey, via.dot1qTagToVlanKey, true );
}

// --- Deleting

void MplsDecapSm::deleteRoute( Mpls::RouteKey routeKey ) {
   DECAP_TRACE( 7, "deleteRoute", " route ", routeKey );
   const Mpls::LfibViaType* const viaType = routeViaType().find( routeKey );
   if ( viaType == nullptr ) {
      DECAP_TRACE( 7, "route was not programmed" );
      deleteRouteFromUnprogrammed( routeKey );
      return;
   }
   switch ( *viaType ) {
   case Mpls::viaTypeIpLookup:
      deleteIpLookupVia( routeKey );
      break;
   case Mpls::viaTypeVlan:
      deleteVlanVia( routeKey );
      break;
   case Mpls::viaTypeEvpnVlanAware:
      deleteEvpnVlanAwareVia( routeKey );
      break;
   case Mpls::viaTypeEvpnVlanFlood:
      deleteEvpnVlanFloodVia( routeKey );
      break;
   case Mpls::viaTypeEvpnVlanAwareFlood:
      deleteEvpnVlanAwareFloodVia( routeKey );
      break;
   case Mpls::viaTypeEvpnEthernetSegment:
      DECAP_TRACE( 7, "Skipping viaType EvpnEthernetSegment" );
      break;
   default:
      DECAP_TRACE( 0, "Internal error: Invalid via type ", *viaType );
      DECAP_ASSERT( false, "Internal Error: Invalid via type", routeKey );
   }
   deleteRouteFromUnprogrammed( routeKey );
}

template< class Via >
void MplsDecapSm::deleting( Mpls::RouteKey routeKey, const Via* via ) const {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_ASSERT( via != nullptr, "!!via", routeKey );
   DECAP_TRACE( 3, "deleting ", *via );
}

void MplsDecapSm::forgetViaType( Mpls::RouteKey routeKey ) {
   routeViaTypeDel( routeKey );
   if ( !routeKey.singleLabel() ) {
      const U32 label = routeKey.topLabel().value();
      std::set< Mpls::RouteKey >& deeper = *deeperRoutes_.find( label );
      deeper.erase( routeKey );
      if ( deeper.empty() ) {
         deeperRoutes_.erase( label );
      }
   }
}

void MplsDecapSm::deleteIpLookupVia( Mpls::RouteKey routeKey ) {
   deleting( routeKey, routeIpLookupVia().find( routeKey ) );
   const Mpls::LfibIpLookupVia via = routeIpLookupVia( routeKey );
   const L3::VrfName vrfName = via.vrfName.vrfName();
   helper_->deleteLabelToVrfMapping( routeKey.topLabel(), vrfName, via.payloadType );
   mappingsDeletedInc();
   routeIpLookupViaDel( routeKey );
   forgetViaType( routeKey );
   VrfRouteKeySet* const set = vrfRouteKeySet( vrfName );
   set->routeKeySetDel( routeKey );
   if ( set->routeKeySets() == 0 ) {
      vrfRouteKeySetDel( vrfName );
   }
}

void MplsDecapSm::deleteVlanVia( Mpls::RouteKey routeKey ) {
   deleting( routeKey, routeVlanVia().find( routeKey ) );
   helper_->deleteLabelToVlanMapping( routeKey.topLabel(), routeVlanVia( routeKey ).vlanId, false );
   mappingsDeletedInc();
   routeVlanViaDel( routeKey );
   forgetViaType( routeKey );
}

void MplsDecapSm::deleteEvpnVlanFloodVia( Mpls::RouteKey routeKey ) {
   deleting( routeKey, routeEvpnVlanFloodVia().find( routeKey ) );
   helper_->deleteLabelToVlanMapping( routeKey.topLabel(), routeEvpnVlanFloodVia( routeKey ).vlanId,
                                      true );
   mappingsDeletedInc();
   routeEvpnVlanFloodViaDel( routeKey );
   forgetViaType( routeKey );
}

void MplsDecapSm::deleteEvpnVlanAwareVia( Mpls::RouteKey routeKey ) {
   deleting( routeKey, routeEvpnVlanAwareVia().find( routeKey ) );
   vlanAwareDel( routeKey, false );
   routeEvpnVlanAwareViaDel( routeKey );
   forgetViaType( routeKey );
}

void MplsDecapSm::deleteEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey ) {
   deleting( routeKey, routeEvpnVlanAwareFloodVia().find( routeKey ) );
   vlanAwareDel( routeKey, true );
   routeEvpnVlanAwareFloodViaDel( routeKey );
   forgetViaType( routeKey );
}

// --- VLAN-aware routes and their maps

// The route uses the map: all of its tags that are not programmed yet are.
void MplsDecapSm::vlanAwareIs( Mpls::RouteKey routeKey, Mpls::LfibDot1qTagToVlanKey key,
                               bool flood ) {
   vlanAwareRouteKeyToDot1qTagVlanKeyIs( routeKey, key );
   vlanAwareDot1qTagVlanToRouteKeySetIs( key )->routeKeySetIs( routeKey );
   if ( const Ptr< const Mpls::LfibDot1qTagToVlan > map{ lfib_->dot1qTagToVlanColl( key ) } ) {
      for ( const auto& [dot1qTag, vlanId] : map->dot1qTagToVlanId() ) {
         dot1qTagIs( routeKey, dot1qTag, vlanId, flood );
      }
   }
}

void MplsDecapSm::vlanAwareDel( Mpls::RouteKey routeKey, bool flood ) {
   if ( const Ptr< VlanAwareProgrammedRouteSet > tags{
           vlanAwareRouteKeyToDot1qTagVlanProgrammed( routeKey ) } ) {
      for ( const auto& [dot1qTag, vlanId] : tags->dot1qTagToVlanId() ) {
         dot1qTagDel( routeKey, dot1qTag, flood );
      }
      vlanAwareRouteKeyToDot1qTagVlanProgrammedDel( routeKey );
   }
   const Mpls::LfibDot1qTagToVlanKey key = vlanAwareRouteKeyToDot1qTagVlanKey( routeKey );
   vlanAwareRouteKeyToDot1qTagVlanKeyDel( routeKey );
   VlanAwareDot1qTagVlanRouteKeySet* const routes = vlanAwareDot1qTagVlanToRouteKeySet( key );
   routes->routeKeySetDel( routeKey );
   if ( routes->routeKeySets() == 0 ) {
      vlanAwareDot1qTagVlanToRouteKeySetDel( key );
   }
}

// The mapping of a tag to another VLAN takes the place of the one there is.
void MplsDecapSm::dot1qTagIs( Mpls::RouteKey routeKey, Bridging::VlanId dot1qTag,
                              Bridging::VlanIdOrNone vlanId, bool flood ) {
   const VlanAwareProgrammedRouteSet* const tags =
      vlanAwareRouteKeyToDot1qTagVlanProgrammed( routeKey );
   const Bridging::VlanIdOrNone* const old =
      tags ? tags->dot1qTagToVlanId().find( dot1qTag ) : nullptr;
   if ( vlanId.none() ) {
      if ( old != nullptr ) {
         dot1qTagDel( routeKey, dot1qTag, flood );
      }
      return;
   }
   if ( old != nullptr && *old == vlanId ) {
      DECAP_TRACE( 7, "route ", routeKey, " dot1qTag ", dot1qTag, " vlanId ", vlanId,
                   " : Already Programmed " );
      return;
   }
   if ( old != nullptr ) {
      DECAP_TRACE( 3, "route ", routeKey, " dot1qTag ", dot1qTag, " changing vlanId from ", *old,
                   " to ", vlanId );
   }
   const ReturnCode rc =
      helper_->createLabelDot1qToVlanMapping( routeKey.topLabel(), dot1qTag, vlanId, flood );
   if ( programmed( routeKey, rc ) ) {
      vlanAwareRouteKeyToDot1qTagVlanProgrammedIs( routeKey )
         ->dot1qTagToVlanIdIs( dot1qTag, vlanId );
   }
}

void MplsDecapSm::dot1qTagDel( Mpls::RouteKey routeKey, Bridging::VlanId dot1qTag, bool flood ) {
   VlanAwareProgrammedRouteSet* const tags = vlanAwareRouteKeyToDot1qTagVlanProgrammed( routeKey );
   if ( tags != nullptr && tags->dot1qTagToVlanIdDel( dot1qTag ) ) {
      helper_->deleteLabelDot1qToVlanMapping( routeKey.topLabel(), dot1qTag, flood );
      mappingsDeletedInc();
   }
}

std::vector< Mpls::RouteKey > MplsDecapSm::routesOfMap( Mpls::LfibDot1qTagToVlanKey key ) const {
   std::vector< Mpls::RouteKey > routes;
   if ( const VlanAwareDot1qTagVlanRouteKeySet* const set =
           vlanAwareDot1qTagVlanToRouteKeySet( key ) ) {
      for ( const Mpls::RouteKey routeKey : set->routeKeySet() ) {
         routes.push_back( routeKey );
      }
   }
   return routes;
}

void MplsDecapSm::processDot1qTagToVlan( Mpls::LfibDot1qTagToVlanKey key, bool create ) {
   DECAP_TRACE( 3, "processDot1qTagToVlan", " dot1qTagToVlanKey ", key, " create ", create );
   for ( const Mpls::RouteKey routeKey : routesOfMap( key ) ) {
      if ( routeViaType( routeKey ) == Mpls::viaTypeEvpnVlanAware ) {
         create ? createEvpnVlanAwareVia( routeKey, routeEvpnVlanAwareVia( routeKey ) )
                : deleteEvpnVlanAwareVia( routeKey );
      } else {
         create ? createEvpnVlanAwareFloodVia( routeKey, routeEvpnVlanAwareFloodVia( routeKey ) )
                : deleteEvpnVlanAwareFloodVia( routeKey );
      }
   }
}

// Only the tag that has changed is looked at: a map of a few thousand tags arrives tag by tag.
void MplsDecapSm::handleDot1qTagToVlan( Mpls::LfibDot1qTagToVlanKey key,
                                        Bridging::VlanId dot1qTag ) {
   const Mpls::LfibDot1qTagToVlan* const map = lfib_->dot1qTagToVlanColl( key );
   const Bridging::VlanIdOrNone* const there =
      map ? map->dot1qTagToVlanId().find( dot1qTag ) : nullptr;
   const Bridging::VlanIdOrNone vlanId = there ? *there : Bridging::VlanIdOrNone();
   for ( const Mpls::RouteKey routeKey : routesOfMap( key ) ) {
      if ( vlanId.none() ) {
         DECAP_TRACE( 3, "deleting", " route ", routeKey, " dot1qTag ", dot1qTag );
      }
      dot1qTagIs( routeKey, dot1qTag, vlanId,
                  routeViaType( routeKey ) == Mpls::viaTypeEvpnVlanAwareFlood );
   }
   maybeScheduleUnprogrammedReview();
}

} // namespace Vel
