// World: the agent under simulation and everything around it, on a clock that moves only when told.
//
//    publisher ──LFIB in memory──> MplsSm ──configuration, FEC requests──> Hardware
//    L3Layer ──next hops, VRF names──┘  └──published status
//    other agents' FECs and tunnels ──────────────────────────────────────────┘
//
// The publisher, the neighbours, the links and the other agents outlive the agent; so does what is
// in hardware. Everything else is made anew when the agent restarts. `Inputs` knows what each of
// them wants; events are carried out on both.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mpls/VelMplsInputStatusSm.h"
#include "mpls/VelMplsSm.h"
#include "sim/AnswerRelay.h"
#include "sim/Hardware.h"
#include "sim/Inputs.h"
#include "sim/L3Layer.h"

namespace Vel::Sim {

class World {
 public:
   World( const Settings& settings, HardwareFactory factory );
   World( const World& ) = delete;
   World& operator=( const World& ) = delete;
   ~World();

   /// Carries an event out, but for `rest` and `clear`, which are for Watch.
   void apply( const Event& event );
   /// Has the agent work until nothing is left to do; returns what keeps it from coming to rest, or
   /// nothing. Retries of what hardware refuses go on for ever and are given a few rounds.
   std::string settle();
   /// Nothing keeps what is wanted from being carried out. A limit of hardware hinders only while
   /// hardware is full.
   bool unhindered() const;
   /// Everything that hinders is taken back: capacities, refusals, lost names, damage to the LFIB.
   void mend();
   /// Every route and via set is taken back.
   void clear();

   const Inputs& inputs() const { return inputs_; }
   MplsSm& sm() const { return *agent_->sm; }
   VrfMplsState* state() const { return sm().mplsState( L3::VrfName::defaultVrf() ); }
   const MplsSmInputs& entities() const { return sm().inputs(); }
   Hardware& hardware() const { return *agent_->hardware; }
   const L3Layer& l3() const { return *agent_->l3; }
   const Scheduler& scheduler() const { return *agent_->scheduler; }
   const Mpls::LfibStatus& lfib() const { return *agent_->lfib; }
   static Mpls::RouteKey keyOf( U32 index ) { return Mpls::RouteKey( Inputs::labelOf( index ) ); }

   /// Where a frame of that flow leaves; nothing when it is dropped.
   std::optional< Way > forward( VrfId vrfId, U32 index, U32 flow ) const;
   /// The number under which frames of the VRF arrive.
   VrfId vrfId() const { return inputs_.vrfNumber != 0 ? inputs_.vrfNumber : lastVrfNumber_; }

 private:
   struct Agent {
      Ptr< Scheduler > scheduler;
      Ptr< Mpls::LfibStatus > lfib;
      Ptr< VelL3Status > l3Status;
      Ptr< Routing::Hardware::RouteStatus > routeStatus;
      Ptr< Mpls::RoutingInfo > routingInfo;
      Ptr< Mpls::LfibInfo > lfibInfo;
      Ptr< AttrLogSm > attrLog;
      Ptr< MplsSmInputStatusSm > inputStatusSm;
      std::unique_ptr< L3Layer > l3;
      std::unique_ptr< AnswerRelay > relay; // with slow FECs only
      HardwareEntities hardwareEntities;
      std::unique_ptr< Hardware > hardware;
      MplsSmInputs inputs;
      Ptr< MplsSm > sm;
   };

   void makeAgent( const HardwareMemory* left );
   void makeHardware( Agent& agent, const HardwareMemory* left );
   void makeStateMachine();
   void tellNeighbor( U32 link );
   void tellForeign( U32 number );
   void tellFaults();
   void tellVrf();
   void publish( const Event& event );
   void writeRoute( U32 index );
   void writeViaSet( U32 number );
   void writeExtViaSet( U32 number );
   void writeEverything();
   void republish( U32 how );
   void regionAway( bool away );
   void poll( size_t limit );
   void run( const Event& event );

   HardwareFactory factory_;
   Inputs inputs_;
   std::vector< U64 > memory_; // the LFIB's region
   std::unique_ptr< Mpls::LfibWriter > writer_;
   Ptr< ManualClock > clock_;
   VrfId lastVrfNumber_ = Inputs::firstVrfNumber;
   std::unique_ptr< Agent > agent_;
};

} // namespace Vel::Sim
