#include "agent/report/Metrics.h"

#include <array>
#include <ostream>

namespace Vel::Agent {

using Inspect::LabelState;

namespace {

using C = MplsSmCounters;

constexpr std::array< CounterName, 18 > counters{ {
   { "received", "routes_received", "Routes and removals announced by the LFIB.",
     &C::routesReceived },
   { "accepted", "routes_accepted", "Announced routes that are to be forwarded.",
     &C::routesAccepted },
   { "removed", "routes_removed", "Accepted routes that the LFIB removed.", &C::routesRemoved },
   { "ignored", "routes_ignored", "Announcements that are not for MPLS forwarding.",
     &C::routesIgnored },
   { "reviewed", "routes_reviewed", "Routes processed.", &C::routesReviewed },
   { "written", "routes_written", "Routes written to the hardware configuration.",
     &C::routesWritten },
   { "confirmed", "routes_confirmed", "Routes that the driver reported to be in hardware.",
     &C::routesConfirmed },
   { "refused", "routes_refused", "Routes that became listed as unprogrammed.", &C::routesRefused },
   { "retried", "routes_retried", "Unprogrammed routes tried again.", &C::routesRetried },
   { "published", "routes_published", "Routes published or withdrawn.", &C::routesPublished },
   { "late", "reports_late", "Reports of the driver about what had changed or gone meanwhile.",
     &C::reportsLate },
   { "viaSetsReceived", "via_sets_received", "Announced changes of via sets.",
     &C::viaSetsReceived },
   { "nextHopsReceived", "next_hops_received", "Changes of what next hops resolve to.",
     &C::nextHopsReceived },
   { "adjacenciesReviewed", "adjacencies_reviewed", "L3 adjacencies processed.",
     &C::adjacenciesReviewed },
   { "adjacenciesWritten", "adjacencies_written",
     "L2 adjacencies written to the hardware configuration.", &C::adjacenciesWritten },
   { "adjacenciesRefused", "adjacencies_refused",
     "L2 adjacencies that became listed as unprogrammed.", &C::adjacenciesRefused },
   { "adjacenciesRetried", "adjacencies_retried", "Unprogrammed L2 adjacencies tried again.",
     &C::adjacenciesRetried },
   { "lfibUnread", "lfib_unread", "Times that the LFIB could not be read, and was read again.",
     &C::lfibUnread },
} };

/// One metric after the other.
class MetricWriter {
 public:
   explicit MetricWriter( std::ostream& out ) : out_( out ) {}

   void begin( std::string_view metric, std::string_view type, std::string_view help ) {
      out_ << "# HELP velmpls_" << metric << ' ' << help << "\n# TYPE velmpls_" << metric << ' '
           << type << '\n';
   }
   template< class T >
   void sample( std::string_view metric, const T& value, std::string_view labels = {} ) {
      out_ << "velmpls_" << metric;
      if ( !labels.empty() ) {
         out_ << '{' << labels << '}';
      }
      out_ << ' ' << value << '\n';
   }
   template< class T >
   void counter( const std::string& metric, std::string_view help, const T& value ) {
      begin( metric + "_total", "counter", help );
      sample( metric + "_total", value );
   }
   template< class T >
   void gauge( std::string_view metric, std::string_view help, const T& value ) {
      begin( metric, "gauge", help );
      sample( metric, value );
   }

 private:
   std::ostream& out_;
};

void writeTasks( MetricWriter& writer, const MplsSm& sm ) {
   const std::array< Ptr< TimerTask >, 3 > tasks{ sm.vrfTask(), sm.unprogrammedRouteTask(),
                                                  sm.routePublishTask() };
   writer.begin( "task_runs_total", "counter", "Runs of a task." );
   for ( const Ptr< TimerTask >& task : tasks ) {
      writer.sample( "task_runs_total", task->runs(),
                     joinText( "task=\"", task->taskName(), "\"" ) );
   }
   writer.begin( "task_yields_total", "counter", "Runs of a task that were cut short." );
   for ( const Ptr< TimerTask >& task : tasks ) {
      writer.sample( "task_yields_total", task->yields(),
                     joinText( "task=\"", task->taskName(), "\"" ) );
   }
}

} // namespace

std::span< const CounterName > counterNames() {
   return counters;
}

bool printMetrics( std::ostream& out, const LabelAgent& agent, const ProgramResult& result ) {
   MetricWriter writer( out );
   const MplsSm& sm = agent.mplsSm();
   for ( const CounterName& counter : counters ) {
      writer.counter( std::string( counter.metric ), counter.help,
                      ( *sm.counters().*counter.value )() );
   }
   writer.begin( "routes", "gauge", "Routes of the LFIB by what became of them." );
   for ( const auto state : statesOfRoutes ) {
      writer.sample( "routes", result.summary().of( state ), joinText( "state=\"", state, "\"" ) );
   }
   writer.gauge( "l3_adjacencies", "Via sets in use.", result.summary().l3Adjacencies );
   const Driver::SwitchStatus& hardware = *agent.hardware().status();
   writer.gauge( "hardware_routes", "Routes in hardware.", hardware.routes() );
   writer.gauge( "hardware_l2_adjacencies", "L2 adjacencies in hardware.", hardware.adjacencies() );
   writer.gauge( "hardware_fecs", "FECs in hardware.", hardware.fecs() );
   writer.gauge( "hardware_queue_length", "Operations that wait for the hardware.",
                 hardware.queueLength() );
   writer.counter( "hardware_operations", "Operations carried out by the hardware.",
                   hardware.operations() );
   writer.counter( "hardware_refusals", "Operations refused by the hardware.", hardware.refused() );
   writer.counter( "hardware_breaches", "Breaches of the driver contract by the library.",
                   hardware.breaches() );
   const VrfMplsState* const state = sm.mplsState( L3::VrfName::defaultVrf() );
   writer.gauge( "unprogrammed_routes", "Routes that are listed as unprogrammed.",
                 state ? state->numUnprogrammedRoute() : 0 );
   writer.gauge( "unprogrammed_retry_interval_seconds",
                 "Time between two tries of unprogrammed routes.",
                 state ? state->unprogrammedRetryInterval() : 0.0 );
   writer.gauge( "clock_seconds", "The agent's clock.", agent.clock()->now() );
   writeTasks( writer, sm );
   out.flush();
   return out.good();
}

} // namespace Vel::Agent
