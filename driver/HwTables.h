// HwTables: what the hardware of the software switch holds.
//
// These tables are the hardware; the status entities are what the driver says of it. An adjacency
// here is a copy of the L2 vias as they stood when the library wrote them, so that forwarding
// changes when an operation is carried out and not when somebody edits an entity. A route keeps
// its adjacency alive: whatever the library does wrong, forwarding never meets a dangling one.
//
// Cost: 24 bytes a route in pages of 64 neighbouring labels, one look-up without a hash.

#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "mpls/VelMplsHwTypes.h"
#include "platform/seams/FecTables.h"

namespace Vel::Driver {

/// The hardware's side of one L2 adjacency. It is made with the first operation on the adjacency
/// and travels with all that name it, so that nothing is looked up when a route is carried out.
class HwAdjacency {
 public:
   explicit HwAdjacency( Ptr< Mpls::Hardware::L2Adjacency > l2Adjacency )
      : l2Adjacency_( std::move( l2Adjacency ) ) {}
   HwAdjacency( const HwAdjacency& ) = delete;
   HwAdjacency& operator=( const HwAdjacency& ) = delete;

   /// What the library calls it.
   const Ptr< Mpls::Hardware::L2Adjacency >& l2Adjacency() const { return l2Adjacency_; }
   U64 index() const { return l2Adjacency_->index(); }
   bool inHardware() const { return inHardware_; }
   /// The version in hardware, or that was there last.
   U32 version() const { return version_; }
   /// The ways out, in the order of the set that was written; not empty while in hardware.
   const std::vector< Mpls::Hardware::L2Via >& l2Via() const { return vias_.l2Via(); }
   /// Why the last writing did not go into hardware; `Success` when it did.
   UnprogrammedReason refusal() const { return refusal_; }

   void programmed( const Mpls::Hardware::L2ViaSet& vias, U32 version ) {
      vias_ = vias;
      version_ = version;
      inHardware_ = true;
      refusal_ = UnprogrammedReason::Success;
   }
   void refused( UnprogrammedReason reason ) { refusal_ = reason; }
   /// Routes that still point here against the contract go on forwarding.
   void removed() { inHardware_ = false; }

   void referenceAcquire() const { ++references_; }
   void referenceRelease() const {
      if ( --references_ == 0 ) {
         delete this;
      }
   }

 private:
   ~HwAdjacency() = default;

   Ptr< Mpls::Hardware::L2Adjacency > l2Adjacency_;
   mutable U32 references_ = 0;
   U32 version_ = 0;
   UnprogrammedReason refusal_ = UnprogrammedReason::Success;
   bool inHardware_ = false;
   Mpls::Hardware::L2ViaSet vias_;
};

/// A FEC in hardware, as the hardware's side of its id. FecUnit.h tells what it goes through.
struct HwFec {
   explicit HwFec( U64 hardwareId ) : hwId( hardwareId ) {}
   HwFec( const HwFec& ) = delete;
   HwFec& operator=( const HwFec& ) = delete;

   U64 hwId;         ///< what routes name it by; never 0
   Fib::FecId fecId; ///< what it is requested by; none for one of an earlier driver
   L3::VrfName vrfName;
   std::optional< VrfId > reportedIn; ///< the VRF number under which its state is reported
   std::vector< Fib::FecVia > via;    ///< none once it has been taken out of hardware
   Fib::FecId backupFecId;            ///< the backup that is requested for it
   Ptr< HwFec > backup;               ///< the backup that it has in hardware
   U64 routes = 0;                    ///< that forward into it
   U64 recovered = 0;          ///< of these, written by an earlier driver and not yet by this one
   bool routesOperate = false; ///< some route into it has done something to the label itself
   bool replaced = false;      ///< rewritten: it was an earlier driver's, with another content
   bool found = false;         ///< an earlier driver's, which no request has taken over
   bool stays = false;         ///< ... and which cannot make room for another
   U64 protects = 0;           ///< FECs whose backup it is
   U64 protectsFound = 0;      ///< of these, those with `found`
   U64 protectsStaying = 0;    ///< of these, those with `stays`

   void referenceAcquire() const { ++references_; }
   void referenceRelease() const {
      if ( --references_ == 0 ) {
         delete this;
      }
   }

 private:
   ~HwFec() = default;

   mutable U32 references_ = 0;
};

/// What a route does with the label before its FEC does. Without initial values, so that it can
/// share its place with a version.
struct FecRouteOperation {
   MplsLabelAction action;
   Mpls::PayloadType payloadType;
   Mpls::TtlMode ttlMode;

   friend bool operator==( const FecRouteOperation&, const FecRouteOperation& ) = default;
};

/// A label route in hardware: with an adjacency, or into a FEC.
struct HwRoute {
   Ptr< HwAdjacency > adjacency; ///< null for a route into a FEC
   Ptr< HwFec > fec;             ///< null for a route with an adjacency
   union {
      U64 version = 0; ///< that was carried out, with an adjacency
      FecRouteOperation operation;
   };
};

using HwRouteTable = LabelIndexed< Mpls::RouteKey, HwRoute >;

/// What the hardware of one VRF refuses now, each with its own reason. `MplsHwVrfStatus` has one
/// reason for all of them, the last.
class SwitchVrfStatus : public Entity {
   // clang-format off
   VEL_ENTITY( SwitchVrfStatus )
   VEL_KEY( VrfId, vrfId )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, UnprogrammedReason, refusedRoute )
   VEL_COLLECTION( Hash, U64, UnprogrammedReason, refusedAdjacency ) // by L2 adjacency index
   VEL_SET( LabelSet, Mpls::RouteKey, lostRoute ) // into a FEC: hardware has lost the last writing
   VEL_ENTITY_END
   // clang-format on

 public:
   explicit SwitchVrfStatus( VrfId vrfId ) : vrfId_( vrfId ) {}
};

/// The hardware of one VRF. Written by the software switch alone.
struct HwVrf {
   HwVrf( VrfId id, MplsHwVrfStatus* hwStatus, SwitchVrfStatus* refusals )
      : vrfId( id ), refused( refusals ), status( hwStatus ) {}

   VrfId vrfId;
   bool mplsRouting = false;
   HwRouteTable route;
   HashSet< Ptr< HwAdjacency > > adjacency; ///< those in hardware
   /// What is wanted and not in hardware, and why.
   Ptr< SwitchVrfStatus > refused;
   /// Of the refused routes, those that the driver itself has put into `unprogrammedRoute` and that
   /// are still there.
   LabelSet< Mpls::RouteKey > listedRoute;
   Ptr< MplsHwVrfStatus > status;
};

} // namespace Vel::Driver
