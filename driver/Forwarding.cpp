#include "driver/Forwarding.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "driver/FlowOrder.h"

namespace Vel::Driver {

namespace {

using Mpls::PayloadType;
using Mpls::RouteKey;
using Mpls::TtlMode;
using Mpls::Hardware::L2Via;

std::string hexText( uint16_t value ) {
   constexpr std::string_view digits = "0123456789abcdef";
   std::string text = "0x";
   for ( unsigned shift = 16; shift != 0; ) {
      shift -= 4;
      text.push_back( digits[( value >> shift ) & 0xF] );
   }
   return text;
}

/// "label 16001", and for a special-purpose label what it stands for.
std::string labelText( U32 label ) {
   constexpr std::array< std::string_view, 4 > meanings{ "IPv4 explicit null", "router alert",
                                                         "IPv6 explicit null", "implicit null" };
   return label < meanings.size() ? joinText( "label ", label, " (", meanings[label], ")" )
                                  : joinText( "label ", label );
}

/// One frame on its way through.
class Passage {
 public:
   Passage( const HwRouteTable& routes, MacAddr switchMac, const Links& links, const FecUnit* fecs )
      : routes_( routes ), switchMac_( switchMac ), links_( links ), fecs_( fecs ) {}

   ForwardResult run( ByteView frame ) {
      if ( read( frame ) ) {
         hash_ = flowHash( packet_ );
         while ( const L2Via* const via = lookup() ) {
            if ( via->labelAction != MplsLabelAction::pop || !via->intf.empty() ) {
               leave( *via );
               break;
            }
            if ( !popHere( *via ) ) {
               break;
            }
         }
      }
      return std::move( result_ );
   }

 private:
   bool drop( DropReason reason, std::string text ) {
      result_.drop = reason;
      result_.text = std::move( text );
      return false;
   }
   bool dropBadVia( std::string_view what ) {
      return drop( DropReason::badVia,
                   joinText( "the via of ", labelText( top_.label ), " ", what ) );
   }

   bool read( ByteView frame );
   const L2Via* lookup();
   const L2Via* viaOf( const HwAdjacency& adjacency );
   const L2Via* wayOutOf( const HwRoute& route );
   bool popHere( const L2Via& via );
   bool leave( const L2Via& via );
   bool labelsFit( const L2Via& via );
   void exposedTtlIs( TtlMode mode, uint8_t ttl );
   bool exposePayload( const L2Via& via, uint8_t ttl, uint16_t& etherType );

   size_t labelsLeft() const { return ( payload_ - at_ ) / LabelEntry::size; }
   LabelEntry entry( size_t depth ) const {
      return *labelEntryRead( packet_, at_ + depth * LabelEntry::size );
   }

   const HwRouteTable& routes_;
   MacAddr switchMac_;
   const Links& links_;
   const FecUnit* fecs_;
   L2Via wayOut_; // of a route into a FEC
   ForwardResult result_;
   Bytes packet_;       // the frame from the label stack on
   size_t at_ = 0;      // where the top entry begins
   size_t payload_ = 0; // where the payload begins
   U64 hash_ = 0;
   LabelEntry top_;     // the entry that is being handled
   size_t handled_ = 0; // labels of the route that was found
};

bool Passage::read( ByteView frame ) {
   const auto ethernet = ethernetRead( frame );
   if ( !ethernet ) {
      return drop( DropReason::frameTooShort, "frame too short for an Ethernet header" );
   }
   if ( ethernet->etherType != etherTypeMpls ) {
      return drop( DropReason::notMpls, joinText( "not an MPLS frame (EtherType ",
                                                  hexText( ethernet->etherType ), ")" ) );
   }
   const ByteView packet = frame.subspan( ethernet->size );
   std::optional< LabelEntry > entry;
   do {
      entry = labelEntryRead( packet, payload_ );
      payload_ += LabelEntry::size;
   } while ( entry && !entry->bottom );
   if ( !entry ) {
      return drop( DropReason::noBottomOfStack, "frame ends within the label stack" );
   }
   if ( payload_ == packet.size() ) {
      return drop( DropReason::noPayload, "bottom of stack without payload" );
   }
   packet_.assign( packet.begin(), packet.end() );
   return true;
}

const L2Via* Passage::lookup() {
   top_ = entry( 0 );
   if ( top_.label == MplsLabel::implicitNull ) {
      drop( DropReason::implicitNull, labelText( top_.label ) + " must not appear" );
      return nullptr;
   }
   for ( handled_ = std::min( RouteKey::maxLabels, labelsLeft() ); handled_ > 0; --handled_ ) {
      const auto label = [this]( size_t depth ) {
         return depth < handled_ ? MplsLabel( entry( depth ).label ) : MplsLabel();
      };
      const RouteKey key( label( 0 ), label( 1 ), label( 2 ) );
      if ( const HwRoute* const route = routes_.find( key ) ) {
         result_.routeKey = key;
         if ( route->fec ) {
            return wayOutOf( *route );
         }
         return viaOf( *route->adjacency );
      }
   }
   drop( DropReason::noRoute, "no route for " + labelText( top_.label ) );
   return nullptr;
}

const L2Via* Passage::viaOf( const HwAdjacency& adjacency ) {
   const std::vector< L2Via >& vias = adjacency.l2Via();
   FlowOrder order( hash_, 0, vias.size() );
   for ( size_t tried = 0; tried < vias.size(); ++tried ) {
      const L2Via& via = vias[order.next()];
      if ( links_.allUp() || links_.up( via.intf ) ) {
         return &via;
      }
   }
   drop( DropReason::noUsableVia,
         joinText( labelText( top_.label ), ": every interface of its vias is down" ) );
   return nullptr;
}

const L2Via* Passage::wayOutOf( const HwRoute& route ) {
   std::string why = "this hardware has no FECs";
   if ( fecs_ && fecs_->wayOut( route, hash_, wayOut_, why ) ) {
      return &wayOut_;
   }
   drop( DropReason::noUsableVia, joinText( labelText( top_.label ), ": ", why ) );
   return nullptr;
}

/// Takes the label off whose path ends in this switch. The TTL is counted down when the packet is
/// sent on; until then the popped label's TTL takes the place of the TTL of what lies below, except
/// in pipe mode.
bool Passage::popHere( const L2Via& via ) {
   if ( handled_ == labelsLeft() ) {
      return drop( DropReason::noWayOut,
                   labelText( top_.label ) + " ends here and its via has no interface" );
   }
   at_ += handled_ * LabelEntry::size;
   exposedTtlIs( via.ttlMode, top_.ttl );
   return true;
}

/// Writes the TTL of what a pop laid bare: the entry at the top, or the IP header.
void Passage::exposedTtlIs( TtlMode mode, uint8_t ttl ) {
   if ( mode == TtlMode::pipe ) {
      return;
   }
   const std::span< uint8_t > exposed = std::span( packet_ ).subspan( at_ );
   const bool ip = at_ == payload_;
   constexpr size_t entryTtlOffset = LabelEntry::size - 1;
   if ( mode == TtlMode::undefined ) {
      ttl = std::min( ttl, ip ? *ipTtl( exposed ) : exposed[entryTtlOffset] );
   }
   if ( ip ) {
      ipTtlIs( exposed, ttl );
   } else {
      exposed[entryTtlOffset] = ttl;
   }
}

bool Passage::labelsFit( const L2Via& via ) {
   if ( via.intf.empty() ) {
      return dropBadVia( "has no interface" );
   }
   if ( via.labelAction == MplsLabelAction::none ) {
      return dropBadVia( "has no label operation" );
   }
   const size_t labels = via.labelStack.stackSize();
   const bool ofFec = &via == &wayOut_; // a way through FECs may pop and then push
   if ( via.labelAction == MplsLabelAction::pop ? labels != 0 && !ofFec : labels == 0 ) {
      return dropBadVia( labels == 0 ? "has no outgoing label" : "pops and has outgoing labels" );
   }
   for ( size_t i = 0; i < labels; ++i ) {
      const U32 label = via.labelStack.label( i ).value();
      if ( label == MplsLabel::implicitNull || label > MplsLabel::maxValue ) {
         return dropBadVia( "has the outgoing " + labelText( label ) );
      }
   }
   return true;
}

/// Lays the IP packet bare that a popped last label covered.
bool Passage::exposePayload( const L2Via& via, uint8_t ttl, uint16_t& etherType ) {
   const ByteView payload = ByteView( packet_ ).subspan( payload_ );
   const AddressFamily family = ipFamily( payload );
   const AddressFamily wanted = via.payloadType == PayloadType::ipv4   ? ipv4()
                                : via.payloadType == PayloadType::ipv6 ? ipv6()
                                                                       : family;
   const bool coveredAgain = via.labelStack.stackSize() != 0; // by labels of a way through FECs
   const bool declared =
      via.payloadType == PayloadType::ipv4 || via.payloadType == PayloadType::ipv6;
   if ( coveredAgain && ( via.ttlMode == TtlMode::pipe || ( !declared && !ipTtl( payload ) ) ) ) {
      return true; // nothing is written into the payload, so it need not be an IP packet
   }
   if ( family == AddressFamily::unspecified || family != wanted || !ipTtl( payload ) ) {
      const std::string_view expected = wanted == AddressFamily::unspecified
                                           ? std::string_view( "IPv4 or IPv6" )
                                           : stringValue( wanted );
      return drop( DropReason::payloadUnknown, joinText( "the payload of ", labelText( top_.label ),
                                                         " is no whole ", expected, " packet" ) );
   }
   exposedTtlIs( via.ttlMode, ttl );
   if ( !coveredAgain ) {
      etherType = family == ipv4() ? etherTypeIpv4 : etherTypeIpv6;
   }
   return true;
}

bool Passage::leave( const L2Via& via ) {
   if ( !labelsFit( via ) ) {
      return false;
   }
   if ( top_.ttl <= 1 ) {
      return drop( DropReason::ttlExpired,
                   joinText( "TTL expired (", labelText( top_.label ), ", TTL ", top_.ttl, ")" ) );
   }
   const auto ttl = static_cast< uint8_t >( top_.ttl - 1 );
   const bool bottom = handled_ == labelsLeft();
   EthernetHeader ethernet{ via.macAddr, switchMac_, via.vlanId, etherTypeMpls };
   switch ( via.labelAction ) {
   case MplsLabelAction::pop:
      at_ += handled_ * LabelEntry::size;
      if ( !bottom ) {
         exposedTtlIs( via.ttlMode, ttl );
      } else if ( !exposePayload( via, ttl, ethernet.etherType ) ) {
         return false;
      }
      break;
   case MplsLabelAction::swap:
      at_ += handled_ * LabelEntry::size;
      break;
   case MplsLabelAction::push:
   case MplsLabelAction::none:
      exposedTtlIs( TtlMode::uniform, ttl );
      break;
   }

   OutgoingFrame& out = result_.frames.emplace_back( OutgoingFrame{ via.intf, via.vlanId, {} } );
   ethernetAppend( out.bytes, ethernet );
   const size_t labels = via.labelStack.stackSize();
   for ( size_t i = 0; i < labels; ++i ) {
      // A push leaves the incoming label below, so none of the pushed ones is the last.
      const bool last = i + 1 == labels && bottom && via.labelAction != MplsLabelAction::push;
      labelEntryAppend( out.bytes,
                        { via.labelStack.label( i ).value(), top_.trafficClass, last, ttl } );
   }
   const ByteView rest = ByteView( packet_ ).subspan( at_ );
   out.bytes.insert( out.bytes.end(), rest.begin(), rest.end() );
   return true;
}

} // namespace

ForwardResult forwardFrame( const HwRouteTable& routes, ByteView frame, MacAddr switchMac,
                            const Links& links, const FecUnit* fecs ) {
   return Passage( routes, switchMac, links, fecs ).run( frame );
}

U64 flowHash( ByteView packet ) {
   constexpr size_t labelsHashed = 16;
   U64 hash = 0;
   size_t at = 0;
   for ( bool bottom = false; !bottom; at += LabelEntry::size ) {
      const auto entry = labelEntryRead( packet, at );
      if ( !entry || at == labelsHashed * LabelEntry::size ) {
         return hash;
      }
      bottom = entry->bottom;
      if ( entry->label >= MplsLabel::firstUnreserved ) {
         hash = mixBits( hash + entry->label );
      }
   }
   return ipFlowHash( packet.subspan( at ), hash );
}

} // namespace Vel::Driver
