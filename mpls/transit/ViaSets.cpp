#include "mpls/transit/ViaSets.h"

#include <optional>
#include <string>
#include <string_view>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

// Only this library gives ids of its own kinds, and an index has to fit into an interface.
bool externalFecIdValid( Fib::FecId fecId ) {
   constexpr U64 indexLimit = U64{ 1 } << 48;
   if ( !fecId.valid() || fecId.index() >= indexLimit ) {
      return false;
   }
   return !fecId.ofLabelViaSet() && !fecId.isA( Fib::AdjType::mplsMcastViaAdj );
}

// The kinds of interface that a via set may not mix.
struct IntfKindsSeen {
   bool nexthopGroup = false;
   bool dynamicTunnel = false;
};

// Why the via's interface does not fit, or nothing.
std::string_view intfFault( const Mpls::LfibMplsVia& via, bool inPlaceAdjacencyUpdate,
                            IntfKindsSeen& seen ) {
   if ( via.intf.empty() ) {
      if ( inPlaceAdjacencyUpdate ) {
         return "L3 interface is not set, via is invalid";
      }
      return via.nextHop.empty() ? "L3 interface and nexthop are not set, via is invalid"
                                 : std::string_view(); // the route resolver finds the interface
   }
   if ( Fib::FecIdIntfId::isNexthopGroupIdIntfId( via.intf ) ) {
      if ( !Fib::FecIdIntfId::intfIdToFecId( via.intf ).isA( Fib::AdjType::nexthopGroupAdj ) ) {
         return "the interface names no next-hop group";
      }
      seen.nexthopGroup = true;
      return seen.dynamicTunnel ? "Mix of dynamic tunnel and NHG via is not supported"
                                : std::string_view();
   }
   if ( DynamicTunnelIntfId::isDynamicTunnelIntfId( via.intf ) ) {
      seen.dynamicTunnel = true;
      return seen.nexthopGroup ? "Mix of dynamic tunnel and NHG via is not supported"
                               : std::string_view();
   }
   if ( seen.nexthopGroup || seen.dynamicTunnel ) {
      return "Mix of tunnel and non-tunnel via is not supported";
   }
   // Its next hop has to be resolved on the interface, which takes an address.
   return via.nextHop.empty() ? "nexthop is not set, via is invalid" : std::string_view();
}

// Why no frame could be rewritten by one of the vias, or nothing. A next-hop group rewrites by
// itself.
std::string_view operationFault( const CachedLFibMplsViaColl& vias ) {
   for ( const auto& [index, via] : vias.via() ) {
      const bool hasLabel = via.labelStack.stackSize() != 0;
      const bool putsLabelOn =
         via.labelAction == MplsLabelAction::swap || via.labelAction == MplsLabelAction::push;
      const bool intoGroup = Fib::FecIdIntfId::isNexthopGroupIdIntfId( via.intf );
      if ( intoGroup && ( hasLabel || putsLabelOn ) ) {
         return "a next-hop group has its own label operation, only a pop may come before it";
      }
      if ( via.labelAction == MplsLabelAction::none && !intoGroup ) {
         return "the via has no label action";
      }
      if ( hasLabel != putsLabelOn ) {
         return hasLabel ? "the via pops and has a label" : "the via has no outgoing label";
      }
   }
   return {};
}

// In what the vias of a dynamic tunnel differ, or nothing.
std::string dynamicTunnelFault( const CachedLFibMplsViaColl& vias ) {
   const Mpls::LfibMplsVia* first = nullptr;
   for ( const auto& [index, via] : vias.via() ) {
      if ( first == nullptr ) {
         first = &via;
      }
      if ( via.labelAction != first->labelAction ) {
         return joinText( "Adjacencies of dynamic tunnel should have the same"
                          "label action. The conflicting labelActions are: ",
                          first->labelAction, " and ", via.labelAction );
      }
      if ( via.payloadType != first->payloadType ) {
         return joinText( "Adjacencies of dynamic tunnel should have the same"
                          "payloadTypes. The conflicting payloadTypes are: ",
                          first->payloadType, " and ", via.payloadType );
      }
   }
   return {};
}

template< class Test >
bool someViaIntf( const CachedLFibMplsViaColl& vias, const Test& test ) {
   for ( const auto& [index, via] : vias.via() ) {
      if ( test( via.intf ) ) {
         return true;
      }
   }
   return false;
}

bool hasDynamicTunnelAdj( const CachedLFibMplsViaColl& vias ) {
   return someViaIntf( vias, DynamicTunnelIntfId::isDynamicTunnelIntfId );
}

bool hasNHGAdj( const CachedLFibMplsViaColl& vias ) {
   return someViaIntf( vias, Fib::FecIdIntfId::isNexthopGroupIdIntfId );
}

} // namespace

bool ViaSets::routeSupported( const Mpls::LfibRoute& route ) const {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf(), " routeKey ", route.routeKey );
   MPLS_ASSERT( !!route, "!!route", sm_.name() );
   if ( isTransit( route.viaSetKey.viaType() ) ) {
      return true;
   }
   MPLS_TRACE( 7, "Ignoring non mpls-ip and extFec LfibRoute ", route.routeKey );
   return false;
}

bool ViaSets::isLFibViaSetSane( const Mpls::LfibViaSet& viaSet ) const {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf(), " key ", viaSet.key() );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( viaSet.viaKey( i ).viaType() != viaSet.key().viaType() ) {
         return false;
      }
   }
   return viaSet.viaKeys() != 0;
}

// Copies the vias out of the LFIB, up to the first that does not fit; says why it does not.
std::string ViaSets::collectMplsIpLFibVias( const Mpls::LfibViaSet& viaSet,
                                            CachedLFibMplsViaColl& vias ) const {
   IntfKindsSeen seen;
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibViaKey viaKey = viaSet.viaKey( i );
      if ( viaKey.viaType() != Mpls::viaTypeMplsIp ) {
         return joinText( "Via ", viaKey.index(), " ViaType ", viaKey.viaType(), " is not mplsIp" );
      }
      const Mpls::LfibMplsVia via = in_.transitLfib->lfibMplsVia( viaKey );
      if ( via.null() ) {
         return joinText( "LfibMplsVia index ", viaKey.index(), ", source ", viaKey.source(),
                          " was not found" );
      }
      if ( via.labelStack.stackSize() > 1 ) {
         return "Vias with more than one label is not supported";
      }
      if ( const std::string_view fault =
              intfFault( via, sm_.inPlaceAdjacencyUpdateSupported(), seen );
           !fault.empty() ) {
         return std::string( fault );
      }
      vias.viaIs( i, via );
   }
   if ( seen.nexthopGroup && vias.vias() > 1 ) {
      return "Only one NHG via is supported now";
   }
   if ( seen.dynamicTunnel ) {
      if ( std::string fault = dynamicTunnelFault( vias ); !fault.empty() ) {
         return fault;
      }
   }
   return std::string( operationFault( vias ) );
}

Ptr< CachedLFibMplsViaColl >
ViaSets::getSaneMplsIpLFibVias( const Mpls::LfibViaSet& viaSet ) const {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf(), " key ", viaSet.key() );
   auto vias = make< CachedLFibMplsViaColl >();
   if ( viaSet.key().viaType() == Mpls::viaTypeMplsIp ) {
      vias->usableAsPrimaryViasIs( viaSet.usableAsPrimaryVias() );
   }
   if ( const std::string fault = collectMplsIpLFibVias( viaSet, *vias ); !fault.empty() ) {
      MPLS_TRACE( 3, fault );
      return nullptr;
   }
   return vias;
}

std::string ViaSets::lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const {
   const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( viaSetKey );
   if ( viaSet.null() ) {
      return "the via set is not in the LFIB";
   }
   if ( !isLFibViaSetSane( viaSet ) ) {
      return viaSet.viaKeys() == 0 ? "the via set has no vias" : "the via set mixes via types";
   }
   if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
      Mpls::LfibExtFecVia via;
      return sm_.forwardingIntoExternalFecsSupported()
                ? extFecLFibViaSetFault( viaSet, via )
                : "External FEC not supported on this platform";
   }
   const auto vias = make< CachedLFibMplsViaColl >();
   if ( std::string fault = collectMplsIpLFibVias( viaSet, *vias ); !fault.empty() ) {
      return fault;
   }
   const L3AdjLFibAdjType adjType = findL3AdjLFibAdjType( vias.get() );
   if ( adjType != L3AdjLFibAdjType::adjTypeRegular &&
        !sm_.forwardingIntoExternalFecsSupported() ) {
      return joinText( "Unsupported lFib Adj ", adjType );
   }
   return {};
}

std::optional< U64 > ViaSets::contentDigestOf( const Mpls::LfibViaSet& viaSet ) const {
   if ( viaSet.null() && in_.transitLfib->unread() ) {
      return std::nullopt;
   }
   U64 digest = mixBits( viaSet.key().word() + ( viaSet.usableAsPrimaryVias() ? 1 : 0 ) );
   digest = mixBits( digest + viaSet.backupViaSetKey().word() );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibViaKey key = viaSet.viaKey( i );
      digest = mixBits( digest + key.word() );
      if ( key.viaType() == Mpls::viaTypeExternalFec ) {
         const Mpls::LfibExtFecVia via = in_.transitLfib->lfibExtFecVia( key );
         if ( via.key.empty() && in_.transitLfib->unread() ) {
            return std::nullopt;
         }
         digest = mixBits( digest + via.fecId.value() );
         continue;
      }
      const Mpls::LfibMplsVia via = in_.transitLfib->lfibMplsVia( key );
      if ( via.null() && in_.transitLfib->unread() ) {
         return std::nullopt;
      }
      digest = mixBits( digest + via.nextHop.hash() );
      digest = mixBits( digest + via.intf.hash() + static_cast< U64 >( via.labelAction ) );
      digest = mixBits( digest + via.labelStack.hash() + static_cast< U64 >( via.payloadType ) * 8 +
                        static_cast< U64 >( via.ttlMode ) );
   }
   return digest;
}

bool ViaSets::stillUses( Mpls::RouteKey routeKey, const L3Adjacency& l3Adj ) const {
   return in_.transitLfib->lfibRoute( routeKey ).viaSetKey == l3Adj.lFibViaSetKey();
}

bool ViaSets::validateMplsIpL3Adj( const L3Adjacency& l3Adj, const Mpls::LfibViaSet& viaSet,
                                   const Ptr< CachedLFibMplsViaColl >& saneVias ) const {
   const Mpls::LfibViaSetKey key = l3Adj.lFibViaSetKey(); // a via set that is gone has none
   if ( viaSet.null() ) {
      MPLS_TRACE( 3, "lFib viaSet idx ", key.index(), " viaType ", key.viaType(), " deleted" );
      return false;
   }
   MPLS_ASSERT( key.viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( key ) );
   if ( !saneVias ) {
      MPLS_TRACE( 3, "LFib via set ", key.index(), ", type ", key.viaType(), " is not sane" );
      return false;
   }
   if ( saneVias->vias() == 0 ) {
      MPLS_TRACE( 3, "LFib via set ", key.index(), ", type ", key.viaType(), " has no vias" );
      return false;
   }
   MPLS_TRACE( 7, "LFib via set ", key.index(), " via size ", saneVias->vias() );
   return true;
}

Mpls::LfibExtFecVia ViaSets::getSaneExtFecVia( const L3Adjacency& l3Adj,
                                               const Mpls::LfibViaSet& viaSet ) const {
   const Mpls::LfibViaSetKey viaSetKey = l3Adj.lFibViaSetKey(); // a via set that is gone has none
   if ( viaSet.null() ) {
      MPLS_TRACE( 3, "lFib viaSet idx ", viaSetKey.index(), " viaType ", viaSetKey.viaType(),
                  " deleted" );
      return {};
   }
   MPLS_ASSERT( viaSetKey.viaType() == Mpls::viaTypeExternalFec,
                "lFibViaSetKey.viaType() == Mpls::viaTypeExternalFec_", textOf( viaSetKey ) );
   if ( !sm_.forwardingIntoExternalFecsSupported() ) {
      MPLS_TRACE( 3, "External FEC not supported on this platform; skipping l3 adj" );
      return {};
   }
   Mpls::LfibExtFecVia via;
   if ( const std::string fault = extFecLFibViaSetFault( viaSet, via ); !fault.empty() ) {
      MPLS_TRACE( 3, fault, "; skipping l3 adj" );
      return {};
   }
   return via;
}

// Looks for the via of an external-FEC via set; says why there is none.
std::string ViaSets::extFecLFibViaSetFault( const Mpls::LfibViaSet& viaSet,
                                            Mpls::LfibExtFecVia& via ) const {
   const Mpls::LfibViaKey viaKey = viaSet.viaKey( 0 );
   via = in_.transitLfib->lfibExtFecVia( viaKey );
   if ( viaKey.viaType() != Mpls::viaTypeExternalFec && !viaKey.empty() ) {
      return joinText( "lFib via idx ", viaKey.index(), " is viaType ", viaKey.viaType(),
                       " instead of externalFec" );
   }
   if ( via == Mpls::LfibExtFecVia() ) {
      return joinText( "lFib via idx ", viaKey.index(), " not found" );
   }
   if ( !externalFecIdValid( via.fecId ) ) {
      return joinText( "lFib via idx ", viaKey.index(), " has invalid external FecId" );
   }
   if ( viaSet.viaKeys() != 1 ) {
      const Mpls::LfibViaSetKey key = viaSet.key();
      return joinText( "lFib viaSet ", "index ", key.index(), " source ", key.source(), " viaType ",
                       key.viaType(), " viaSetType ", key.viaSetType(), " has ", viaSet.viaKeys(),
                       " vias, but should only have one" );
   }
   return {};
}

MplsLabelAction ViaSets::actionOf( const CachedLFibMplsViaColl& vias ) {
   std::optional< MplsLabelAction > action;
   for ( const auto& [index, via] : vias.via() ) {
      if ( action && *action != via.labelAction ) {
         return MplsLabelAction::none;
      }
      action = via.labelAction;
   }
   return action.value_or( MplsLabelAction::none );
}

PopForm ViaSets::popFormOf( const CachedLFibMplsViaColl& vias ) {
   PopForm form;
   for ( const auto& [index, via] : vias.via() ) {
      const PopForm own{ via.labelAction == MplsLabelAction::pop, via.payloadType, via.ttlMode };
      if ( !own.pops || ( form.pops && own != form ) ) {
         return {};
      }
      form = own;
   }
   return form;
}

L3AdjLFibAdjType ViaSets::findL3AdjLFibAdjType( const CachedLFibMplsViaColl* vias ) {
   if ( vias == nullptr ) {
      return L3AdjLFibAdjType::adjTypeUnknown;
   }
   if ( hasDynamicTunnelAdj( *vias ) ) {
      return L3AdjLFibAdjType::adjTypeDynamicTunnel;
   }
   return hasNHGAdj( *vias ) ? L3AdjLFibAdjType::adjTypeNexthopGroup
                             : L3AdjLFibAdjType::adjTypeRegular;
}

} // namespace Vel::Transit
