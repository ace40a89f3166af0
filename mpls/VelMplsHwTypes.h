// The hardware programming model: what the library asks of the hardware driver, and what the driver
// reports.
//
// The library writes `MplsHwConfig`: for each VRF whether label forwarding is wanted, the L2
// adjacencies and the label routes that point at them. The driver writes `MplsHwStatus`: what it
// has carried out and what it could not. Every (re)programming carries a new version, so that the
// driver sees a change even where the content is the same, and a route counts as confirmed with the
// version that was carried out. docs/driver-contract.md has the driver's side.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/entity/Entity.h"
#include "platform/seams/HwMplsStatus.h"

namespace Vel {

/// The number of a VRF that has none yet; no VRF has it.
constexpr U64 noVrfId = ~U64{ 0 };

/// Why the driver, or the library itself, gave up on a route.
enum class UnprogrammedReason : U32 {
   Success = 0,
   AdjacencyFull = 1,
   RouteFull = 2,
   InterfaceNotReady = 3,
};
template<>
struct EnumNames< UnprogrammedReason > {
   static constexpr std::array< std::pair< UnprogrammedReason, std::string_view >, 4 > names{
      { { UnprogrammedReason::Success, "Success" },
        { UnprogrammedReason::AdjacencyFull, "AdjacencyFull" },
        { UnprogrammedReason::RouteFull, "RouteFull" },
        { UnprogrammedReason::InterfaceNotReady, "InterfaceNotReady" } } };
};

/// How the vias of a FEC are to be programmed.
enum class MplsFecProgAction : U32 {
   unknownAction = 0,
   programAction = 1,
   partiallyProgramAction = 2,
};
template<>
struct EnumNames< MplsFecProgAction > {
   static constexpr std::array< std::pair< MplsFecProgAction, std::string_view >, 3 > names{
      { { MplsFecProgAction::unknownAction, "unknownAction" },
        { MplsFecProgAction::programAction, "programAction" },
        { MplsFecProgAction::partiallyProgramAction, "partiallyProgramAction" } } };
};

/// A label route as the driver is to program it: key, adjacency and the version of the writing.
struct MplsHwRoute {
   Mpls::RouteKey routeKey;
   Ptr< Mpls::Hardware::L2Adjacency > l2Adjacency;
   U64 version = 0;

   bool operator!() const { return *this == MplsHwRoute(); }
   friend bool operator==( const MplsHwRoute&, const MplsHwRoute& ) = default;

   /// Finds the adjacency for the text form of one; null when it knows none.
   using AdjacencyResolver = Ptr< Mpls::Hardware::L2Adjacency > ( * )( std::string_view text,
                                                                       void* context );
   /// From the text form, in which the adjacency stands as its index or None; nothing when the text
   /// is no such value or names an adjacency that the resolver does not know.
   VEL_EXPORT static std::optional< MplsHwRoute >
   parse( std::string_view text, AdjacencyResolver resolver, void* context );
};
/// "Value('Vel::MplsHwRoute', ** {...})".
VEL_EXPORT void appendText( std::string& out, const MplsHwRoute& route );

/// What the driver is to program in one VRF, under one of its numbers. Written by the library.
///
/// Order: an adjacency is written before the first route that points at it and removed after the
/// last; a route is removed before its adjacency. What is written again has a higher version.
class VEL_EXPORT MplsHwVrfConfig : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsHwVrfConfig > {
    public:
      virtual void onMplsRouting() {}
      virtual void onL2Adjacency( const Ptr< Mpls::Hardware::L2Adjacency >& ) {}
      virtual void onRoute( Mpls::RouteKey ) {}
   };

   // clang-format off
   VEL_ENTITY( MplsHwVrfConfig )
   VEL_KEY( VrfId, vrfId )
   // Label forwarding is wanted. On when it is configured and the VRF has a number; off when the last
   // route has gone. Cannot be refused.
   VEL_ATTRIBUTE( bool, mplsRouting, onMplsRouting )
   // The version of each writing: when its vias are known or have changed, and at each retry. Removed
   // when no route is in hardware by it any more. May be refused (`unprogrammedAdjacency`).
   VEL_COLLECTION( Hash, Ptr< Mpls::Hardware::L2Adjacency >, U32, l2Adjacency, onL2Adjacency )
   // Written when its adjacency is known, and each time that it is processed again. Removed when it
   // goes or forwards into a FEC. May be refused (`unprogrammedRoute`).
   VEL_VALUES( LabelIndexed, Mpls::RouteKey, MplsHwRoute, routeKey, route, onRoute )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsHwVrfConfig( VrfId vrfId ) : vrfId_( vrfId ) {}
};

/// The hardware configuration. Written by the library, read by the driver; never restored from a
/// backup copy.
class VEL_EXPORT MplsHwConfig : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsHwConfig > {
    public:
      virtual void onVrfConfig( VrfId ) {}
   };

   // clang-format off
   VEL_ENTITY( MplsHwConfig )
   VEL_KEY( std::string, configName )
   // Made by the library for each number that the VRF has had; emptied under a former one, removed by
   // nobody.
   VEL_ENTITY_COLLECTION( Hash, VrfId, MplsHwVrfConfig, vrfConfig, onVrfConfig )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsHwConfig( std::string name ) : configName_( std::move( name ) ) {}
   bool hasBackupSupport() const override { return false; }
};

/// What the driver reports of one VRF. Lines marked (sm) are written by the label state machine
/// too.
///
/// A writing is answered once: by `route` or `l2Adjacency` with its version when it has been carried
/// out, by `unprogrammedRoute` or `unprogrammedAdjacency` when it has been refused.
class VEL_EXPORT MplsHwVrfStatus : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsHwVrfStatus > {
    public:
      virtual void onMplsRouting() {}
      virtual void onRoute( Mpls::RouteKey ) {}
      virtual void onUnprogrammedRoute( Mpls::RouteKey ) {}
      virtual void onUnprogrammedAdjacency( const Ptr< Mpls::Hardware::L2Adjacency >& ) {}
      virtual void onMcastHwIdSeq( U16 ) {}
   };

   // clang-format off
   VEL_ENTITY( MplsHwVrfStatus )
   VEL_KEY( VrfId, vrfId )
   // Acknowledges the configuration's; when it comes on, the library goes over the LFIB again.
   VEL_ATTRIBUTE( bool, mplsRouting, onMplsRouting )
   // The version carried out. Stays, with the older version, when a rewriting is refused; removed with
   // the configuration's.
   VEL_COLLECTION( Hash, Ptr< Mpls::Hardware::L2Adjacency >, U32, l2Adjacency )
   // As carried out: adjacency and version. Stays, as it was, when a rewriting is refused; removed
   // with the configuration's. One that differs from what is configured now is late, and ignored.
   VEL_VALUES( LabelIndexed, Mpls::RouteKey, MplsHwRoute, routeKey, route, onRoute )
   // (sm) Of the last refusal; written before the key is listed. The library sets it back to Success
   // when nothing is listed any more.
   VEL_ATTRIBUTE( UnprogrammedReason, unprogrammedReason )
   // (sm) Refused, and tried again in intervals. The driver removes a key that it has carried out
   // since; the library lists those that the helper refused a FEC, and removes a key that goes.
   VEL_SET( LabelSet, Mpls::RouteKey, unprogrammedRoute, onUnprogrammedRoute )
   // Refused, and tried again in intervals. The driver removes what it has carried out since, and what
   // has left the configuration.
   VEL_SET( HashSet, Ptr< Mpls::Hardware::L2Adjacency >, unprogrammedAdjacency, onUnprogrammedAdjacency )
   // (sm) Hardware id of a multicast group, and how often it has changed: the library's, with the
   // answers of the multicast group service. A driver leaves both alone.
   VEL_COLLECTION( Hash, U16, U32, mcastHwId )
   VEL_COLLECTION( Hash, U16, U32, mcastHwIdSeq, onMcastHwIdSeq )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsHwVrfStatus( VrfId vrfId ) : vrfId_( vrfId ) {}

   /// Adds to a group's change counter, wrapping, and gives the new value. A missing entry is made
   /// with 0 first; only a value that differs from the old one is heard of.
   U32 mcastHwIdSeqInc( U16 groupId, U32 delta );
};

/// The hardware status. Written by the driver; never restored from a backup copy.
class VEL_EXPORT MplsHwStatus : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsHwStatus > {
    public:
      virtual void onVrfStatus( VrfId ) {}
   };

   // clang-format off
   VEL_ENTITY( MplsHwStatus )
   VEL_KEY( std::string, statusName )
   // Made by the driver when it meets the VRF's configuration, removed when it stops carrying it out.
   VEL_ENTITY_COLLECTION( Hash, VrfId, MplsHwVrfStatus, vrfStatus, onVrfStatus )
   // Written by the driver once, for other agents; the library reads neither.
   VEL_ATTRIBUTE( U32, maxEcmpSize )
   VEL_ATTRIBUTE( bool, lfibCountersSupported )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsHwStatus( std::string name ) : statusName_( std::move( name ) ) {}
   bool hasBackupSupport() const override { return false; }
};

VEL_EXPORT Ptr< MplsHwConfig > mplsHwConfigFactory( std::string name );
VEL_EXPORT Ptr< MplsHwStatus > mplsHwStatusFactory( std::string name );

} // namespace Vel
