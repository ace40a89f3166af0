#include "mpls/VelMplsTypes.h"

#include <limits>

#include "mpls/VelMplsHwInsight.h"
#include "platform/base/DecimalText.h"

namespace Vel {

namespace {

// Takes `prefix` off the front of `text`; false when it does not stand there.
bool take( std::string_view& text, std::string_view prefix ) {
   if ( !text.starts_with( prefix ) ) {
      return false;
   }
   text.remove_prefix( prefix.size() );
   return true;
}

// Takes everything up to `end`, and `end`.
std::optional< std::string_view > takeUntil( std::string_view& text, std::string_view end ) {
   const size_t at = text.find( end );
   if ( at == std::string_view::npos ) {
      return std::nullopt;
   }
   const std::string_view taken = text.substr( 0, at );
   text.remove_prefix( at + end.size() );
   return taken;
}

} // namespace

// --- Values.

void appendText( std::string& out, const MplsHwRoute& route ) {
   out += joinText(
      "Value('Vel::MplsHwRoute', ** {'routeKey': ", route.routeKey,
      ", 'l2Adjacency': ", route.l2Adjacency ? textOf( route.l2Adjacency->index() ) : "None",
      ", 'version': ", route.version, "})" );
}

std::optional< MplsHwRoute > MplsHwRoute::parse( std::string_view text, AdjacencyResolver resolver,
                                                 void* context ) {
   if ( !take( text, "Value('Vel::MplsHwRoute', ** {'routeKey': " ) ) {
      return std::nullopt;
   }
   const auto keyText = takeUntil( text, ", 'l2Adjacency': " );
   const auto adjText = keyText ? takeUntil( text, ", 'version': " ) : std::nullopt;
   const auto versionText = adjText ? takeUntil( text, "})" ) : std::nullopt;
   if ( !versionText || !text.empty() ) {
      return std::nullopt;
   }
   const auto key = Mpls::routeKeyParse( *keyText );
   const auto version = decimalParse( *versionText, std::numeric_limits< U64 >::max() );
   if ( !key || !version ) {
      return std::nullopt;
   }
   MplsHwRoute route{ *key, {}, *version };
   if ( *adjText != "None" ) {
      route.l2Adjacency = resolver( *adjText, context );
      if ( !route.l2Adjacency ) {
         return std::nullopt;
      }
   }
   return route;
}

void appendText( std::string& out, const PopForm& form ) {
   if ( form.pops ) {
      out += joinText( "pop ", form.payloadType, " ", form.ttlMode );
   } else {
      out += "none";
   }
}

void appendText( std::string& out, const AwaitedBackup& awaited ) {
   if ( awaited.awaits == BackupAwaits::nothing ) {
      out += textOf( awaited.awaits );
   } else {
      out += joinText( awaited.awaits, " of ", awaited.viaSetKey );
   }
}

void appendText( std::string& out, const IpAddrIntfId& key ) {
   out += joinText( "Value('Vel::IpAddrIntfId', ** {'ipGenAddr': ", key.ipGenAddr,
                    ", 'l3Intf': ", key.l3Intf, "})" );
}

std::optional< IpAddrIntfId > IpAddrIntfId::parse( std::string_view text ) {
   if ( !take( text, "Value('Vel::IpAddrIntfId', ** {'ipGenAddr': " ) ) {
      return std::nullopt;
   }
   const auto addressText = takeUntil( text, ", 'l3Intf': " );
   const auto intfText = addressText ? takeUntil( text, "})" ) : std::nullopt;
   if ( !intfText || !text.empty() ) {
      return std::nullopt;
   }
   IpAddrIntfId key;
   if ( !addressText->empty() ) { // an absent address has an empty text
      const auto address = IpGenAddr::parse( *addressText );
      if ( !address ) {
         return std::nullopt;
      }
      key.ipGenAddr = *address;
   }
   const auto intf = intfIdParse( *intfText );
   if ( !intf ) {
      return std::nullopt;
   }
   key.l3Intf = *intf;
   return key;
}

// --- Entities.

VEL_ENTITY_SOURCE( MplsHwVrfConfig )
VEL_ENTITY_SOURCE( MplsHwConfig )
VEL_ENTITY_SOURCE( MplsHwVrfStatus )
VEL_ENTITY_SOURCE( MplsHwStatus )
VEL_ENTITY_SOURCE( CachedLFibMplsViaColl )
VEL_ENTITY_SOURCE( MplsRoute )
VEL_ENTITY_SOURCE( MplsNextHop )
VEL_ENTITY_SOURCE( MplsL2Adjacency )
VEL_ENTITY_SOURCE( MulticastGroupInfo )
VEL_ENTITY_SOURCE( MulticastFecInfo )
VEL_ENTITY_SOURCE( L3Adjacency )
VEL_ENTITY_SOURCE( ExternalFecInfo )
VEL_ENTITY_SOURCE( BackupWait )
VEL_ENTITY_SOURCE( VrfMplsState )

Ptr< MplsHwConfig > mplsHwConfigFactory( std::string name ) {
   return make< MplsHwConfig >( std::move( name ) );
}

Ptr< MplsHwStatus > mplsHwStatusFactory( std::string name ) {
   return make< MplsHwStatus >( std::move( name ) );
}

U32 MplsHwVrfStatus::mcastHwIdSeqInc( U16 groupId, U32 delta ) {
   const auto [slot, made] = mcastHwIdSeq_.emplace( groupId, U32{ 0 } );
   const U32 value = *slot + delta;
   mcastHwIdSeqIs( groupId, value );
   return value;
}

MplsHwInsight::~MplsHwInsight() = default;

MplsRoute::MplsRoute( Mpls::RouteKey routeKey ) : routeKey_( routeKey ) {}
MplsRoute::~MplsRoute() = default;

L3Adjacency::L3Adjacency( U64 index, std::shared_ptr< RouteKeyLinks > links,
                          std::shared_ptr< RouteKeyLinks > carriedLinks )
   : index_( index ),
     routeKey_( std::move( links ) ),
     carriedRouteKey_( std::move( carriedLinks ), *this ) {}
L3Adjacency::~L3Adjacency() = default;

VrfMplsState::VrfMplsState( L3::VrfName vrf )
   : vrfName_( vrf ),
     routesOfL3Adj_( std::make_shared< RouteKeyLinks >() ),
     carriedRoutes_( std::make_shared< RouteKeyLinks >() ),
     routesOfL2Adj_( std::make_shared< RouteKeyLinks >() ),
     routesOfExtFec_( std::make_shared< RouteKeyLinks >() ) {}
// FECs never lead in a circle, but what protected one may lead to it by now.
VrfMplsState::~VrfMplsState() {
   for ( const auto& [fecId, info] : extFecInfo_ ) {
      info->formerBackupDelAll();
   }
}

bool VrfMplsState::idle() const {
   return route_.empty() && mplsNextHop_.empty() && l3Adjacency_.empty() && l2Adjacency_.empty() &&
          extFecInfo_.empty() && lFibViaSetToL3Adj_.empty() && lFibViaSetToFecId_.empty() &&
          viaKeyToFecId_.empty() && l2AdjPendingForDelete_.empty() && mcastFecInfo_.empty();
}

} // namespace Vel
