// Forwarding: what the switch does with a frame.
//
// A frame's top label is looked up, longest key first: a route of three or two labels takes
// precedence over one of fewer and handles its labels as one. The route's adjacency offers L2 vias,
// of which a hash over the flow picks one, always the same for the same flow; the via says what
// happens to the label and where the frame leaves.
//
//    pop    the label comes off and the frame leaves by the via: penultimate hop popping. A way
//           through FECs may put others on above what is laid bare. A via without an interface
//           stands for this switch itself: it looks at the next label.
//    swap   the label comes off and the via's labels go on, the first one on top.
//    push   the label stays and the via's labels go on above it.
//
// TTL (RFC 3443 sections 3.4 and 3.5, RFC 3032 section 2.4): the incoming TTL minus one must be
// more than zero and goes into the outgoing labels. After a pop it goes into what was laid bare, a
// label or an IP header, in uniform mode; in pipe mode the TTL there is neither read nor written.
// Without a mode nobody knows what the start of the path did: the TTL there is then lowered to it,
// but never raised.
//
// The traffic class of the incoming label goes into the labels that are put on.
//
// What cannot be forwarded is dropped with a reason and a sentence: bad frames are data.

#pragma once

#include <string>
#include <vector>

#include "driver/FecUnit.h"
#include "driver/Frame.h"
#include "driver/HwTables.h"

namespace Vel::Driver {

enum class DropReason : uint8_t {
   none = 0, ///< not dropped
   frameTooShort = 1,
   notMpls = 2,
   noBottomOfStack = 3, ///< the frame ends within the label stack
   noPayload = 4,       ///< nothing follows the label stack
   implicitNull = 5,    ///< label 3 in a frame
   noRoute = 6,
   ttlExpired = 7,
   noWayOut = 8,       ///< the last label was popped for this switch itself
   payloadUnknown = 9, ///< what a pop laid bare is not what it should be
   badVia = 10,        ///< the hardware holds a via that makes no sense
   routingDisabled = 11,
   noUsableVia = 12, ///< all links are down, or the FEC has no way out
};

/// A frame as it leaves.
struct OutgoingFrame {
   IntfId intf;                 ///< the L2 interface
   Bridging::VlanId vlanId = 0; ///< 0: untagged
   Bytes bytes;                 ///< the whole frame, tag included

   friend bool operator==( const OutgoingFrame&, const OutgoingFrame& ) = default;
};

/// What became of a frame: frames that leave, or why none does.
struct ForwardResult {
   std::vector< OutgoingFrame > frames;
   DropReason drop = DropReason::none;
   std::string text;        ///< the reason in words, empty when nothing was dropped
   Mpls::RouteKey routeKey; ///< of the last route that was used, null when there was none
};

/// Forwards one frame by the routes of one VRF. `switchMac` becomes the source address; `fecs` may
/// be null when no route forwards into a FEC.
ForwardResult forwardFrame( const HwRouteTable& routes, ByteView frame, MacAddr switchMac,
                            const Links& links, const FecUnit* fecs );

/// The number that picks the via: over the labels of the stack (up to 16 of them) and, for IP below
/// it, the flow. Special-purpose labels take no part, as RFC 6790 section 4.3 demands; entropy
/// labels do. The bytes begin with the label stack.
U64 flowHash( ByteView packet );

} // namespace Vel::Driver

template<>
struct Vel::EnumNames< Vel::Driver::DropReason > {
   using Reason = Vel::Driver::DropReason;
   static constexpr std::array< std::pair< Reason, std::string_view >, 13 > names{
      { { Reason::none, "none" },
        { Reason::frameTooShort, "frameTooShort" },
        { Reason::notMpls, "notMpls" },
        { Reason::noBottomOfStack, "noBottomOfStack" },
        { Reason::noPayload, "noPayload" },
        { Reason::implicitNull, "implicitNull" },
        { Reason::noRoute, "noRoute" },
        { Reason::ttlExpired, "ttlExpired" },
        { Reason::noWayOut, "noWayOut" },
        { Reason::payloadUnknown, "payloadUnknown" },
        { Reason::badVia, "badVia" },
        { Reason::routingDisabled, "routingDisabled" },
        { Reason::noUsableVia, "noUsableVia" } } };
};
