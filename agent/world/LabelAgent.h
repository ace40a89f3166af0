// LabelAgent: everything that an agent is made of, in one process and on a simulated clock.
//
//    label tables ──LfibPublisher──> LFIB ──MplsSm──> MplsHwConfig ──SoftwareSwitch──> MplsHwStatus
//    neighbours ────L3Service──────> VelL3Status ──┘       └─ FECs ─┘
//    definitions ───ForeignFecs──────────────────────────────────┘
//
// The hardware has FECs unless the settings say otherwise: label routes forward into them, and
// next-hop groups, tunnels, external FECs and backups work. With FECs the agent starts as after a
// restart with non-stop forwarding, by default without routes to take over; the start ends with the
// first table.
//
// All entities are mounted in the EntityManager under their names, where inspection finds them.
// There is one VRF, the default one, with the number 0. Time is simulated: `settle` moves the clock
// to what is due next, and does not wait.
//
//    LfibPlan plan;
//    plan.add( table );
//    LabelAgent agent( std::move( plan ) );
//    agent.neighborsAre( neighbors );
//    if ( const auto fault = agent.apply( 0 ) ) ...
//    if ( const auto fault = agent.settle() ) ...
//    const ProgramResult result( agent );
//
// An entity that a caller holds stays valid after the agent is destroyed. The LFIB does not: its
// memory belongs to the agent.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "agent/world/ForeignFecs.h"
#include "agent/world/L3Service.h"
#include "agent/world/LfibPublisher.h"
#include "driver/SoftwareSwitch.h"
#include "inspect/Words.h"
#include "mpls/VelMplsInputStatusSm.h"
#include "mpls/VelMplsSm.h"

namespace Vel::Agent {

struct LabelAgentSettings {
   /// A breach of the contract is shown with the result instead of ending the process.
   Driver::SwitchSettings hardware{ .breachIsFatal = false };
   bool withFecs = true; ///< the hardware has FECs
   /// What hardware with FECs holds of an earlier agent.
   Driver::HwState recovered{};
   /// The share of the recovered routes that may be removed unasked.
   double maxStaleShare = 1;
   /// Called now and then while `settle` works, with what is left to do.
   std::function< void( size_t pendingWork ) > onProgress{};
   /// Runs of tasks after which `settle` gives up.
   size_t maxRuns = 10'000'000;
};

class LabelAgent {
 public:
   /// What a call could not do, as a sentence.
   using Fault = std::optional< std::string >;
   static constexpr VrfId vrfId = 0;

   /// Makes all of it. The LFIB is empty, and large enough for the plan's tables.
   explicit LabelAgent( LfibPlan plan, LabelAgentSettings settings = {} );
   LabelAgent( const LabelAgent& ) = delete;
   LabelAgent& operator=( const LabelAgent& ) = delete;
   ~LabelAgent();

   /// Adds the neighbours of a table to those that are known. With FECs, later tables also get
   /// missing interfaces from them.
   void neighborsAre( const NeighborTable& table );
   /// Publishes a table of the plan as the whole state of the LFIB. Its definitions are made known
   /// before; definitions that it lacks are removed at the end of the next `settle`.
   [[nodiscard]] Fault apply( size_t table );
   /// The same with a table that was not planned for. A fault when the LFIB has no room for it.
   [[nodiscard]] Fault apply( const LabelTable& table );
   /// Works until nothing is left to do. Routes that the hardware refuses are tried again by the
   /// library every few seconds for ever; waiting for that is not work.
   [[nodiscard]] Fault settle();
   /// Settles, and then advances the clock by `seconds`, doing the work that falls due.
   [[nodiscard]] Fault runFor( double seconds );
   /// What is queued anywhere between the LFIB and the hardware.
   size_t pendingWork() const;

   /// Why the route of the table that is published is ignored; empty when it is not.
   const std::string& ignoredReason( Mpls::RouteKey key ) const;
   const LfibPlan& plan() const { return plan_; }
   Interfaces& interfaces() const { return plan_.interfaces(); }
   /// What reports call an interface. Valid while the agent is there.
   Inspect::InterfaceName interfaceName() const {
      return [this]( IntfId intf ) { return interfaces().name( intf ); };
   }
   L3Service& l3() { return *l3_; }
   const L3Service& l3() const { return *l3_; }
   const ForeignFecs& foreignFecs() const { return *foreignFecs_; }
   bool withFecs() const { return settings_.withFecs; }
   Driver::SoftwareSwitch& hardware() { return *switch_; }
   const Driver::SoftwareSwitch& hardware() const { return *switch_; }
   const Ptr< ManualClock >& clock() const { return clock_; }
   EntityManager& entityManager() const { return *entityManager_; }
   const MplsSm& mplsSm() const { return *mplsSm_; }
   const Mpls::LfibStatus& lfib() const { return *lfib_; }
   const Mpls::LfibHwStatus& lfibHwStatus() const { return *mplsSm_->inputs().lfibHwStatus; }
   const Mpls::Hardware::Status& hwMplsStatus() const {
      return *mplsSm_->inputs().routingHwMplsStatus;
   }

 private:
   MplsSmInputs makeEntities();
   void addFecEntities( MplsSmInputs& inputs );
   Driver::FecPlatform fecPlatform( const MplsSmInputs& inputs );
   bool workLeft() const;
   template< class Next >
   Fault work( const Next& next );

   LabelAgentSettings settings_;
   LfibPlan plan_;
   LfibPublisher publisher_;
   Ptr< ManualClock > clock_;
   Ptr< Scheduler > scheduler_;
   Ptr< EntityManager > entityManager_;
   Ptr< Mpls::LfibStatus > lfib_;
   std::unique_ptr< L3Service > l3_;
   std::unique_ptr< Driver::SoftwareSwitch > switch_;
   std::unique_ptr< ForeignFecs > foreignFecs_;
   Ptr< L3StartupStagePrerequisitesStatus > startup_; // this and the next with FECs only
   Ptr< MplsSmInputStatusSm > inputStatus_;
   Ptr< MplsSm > mplsSm_;
   Fault startFault_;
};

} // namespace Vel::Agent
