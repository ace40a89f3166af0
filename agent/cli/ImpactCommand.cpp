// velmpls impact: what breaks if a next hop or an interface goes?

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/ImpactPrinter.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct ImpactOptions {
   RunOptions run;
   std::string format = "text";
   std::string nextHop;
   std::string interface;
};

/// A neighbour of the table is a known target even if no label has it for a next hop.
bool neighborIsKnown( LabelAgent& agent, const Inspect::ImpactTarget& target ) {
   const size_t interfaces = agent.interfaces().size();
   for ( U32 number = 1; target.nextHop && number <= interfaces; ++number ) {
      const IntfId intf = IntfId::ordinary( number );
      if ( ( target.intf.empty() || target.intf == intf ) &&
           agent.l3().neighbor( { intf, *target.nextHop } ) ) {
         return true;
      }
   }
   return false;
}

std::string quoted( const std::string& text ) {
   return "\"" + harmlessText( text ) + "\"";
}

int runImpact( const ImpactOptions& options ) {
   AgentRun run( options.run );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   LabelAgent& agent = run.agent();
   run.progress().hide();
   Inspect::ImpactTarget target;
   if ( !options.nextHop.empty() ) {
      target.nextHop = IpGenAddr::parse( options.nextHop );
   }
   if ( !options.interface.empty() ) {
      const auto intf = agent.interfaces().intf( options.interface );
      if ( !intf ) {
         std::cerr << "--interface: " << quoted( options.interface )
                   << " is in none of the tables\n";
         return ExitStatus::badInput;
      }
      target.intf = *intf;
   }
   const Inspect::Impact impact( agent.entityManager(), target );
   const ImpactQuestion question{ options.nextHop, options.interface,
                                  target.text( agent.interfaceName() ) };
   if ( target.nextHop && !impact.known() && !neighborIsKnown( agent, target ) ) {
      std::cerr << "--next-hop: no label and no neighbour has the " << harmlessText( question.text )
                << '\n';
      return ExitStatus::badInput;
   }
   const bool printed =
      reportWritten( options.format == "json" ? printJson( std::cout, impact, question )
                                              : printText( std::cout, impact, question ) );
   run.complain();
   if ( !printed ) {
      return ExitStatus::badInput;
   }
   return run.incomplete() ? ExitStatus::incomplete : ExitStatus::done;
}

} // namespace

void addImpactCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< ImpactOptions >();
   CLI::App* const command =
      addCommand( app, run, "impact",
                  "Program label tables into a software switch, and show what would lose its "
                  "ways out if a next hop or an interface went",
                  options, runImpact );
   addRunOptions( *command, options->run );
   addHardwareBefore( *command, options->run );
   addReportFormat( *command, options->format );
   CLI::Option_group* const target =
      command->add_option_group( "What goes", "At least one of --next-hop and --interface" );
   target->add_option( "--next-hop", options->nextHop, "Address of the next hop that goes" )
      ->type_name( "ADDRESS" )
      ->check( []( const std::string& text ) {
         return IpGenAddr::parse( text ) ? std::string()
                                         : quoted( text ) + " is not an IPv4 or IPv6 address";
      } );
   target
      ->add_option( "--interface", options->interface,
                    "Interface that goes; with --next-hop: the interface on which that goes" )
      ->type_name( "NAME" )
      ->check( []( const std::string& text ) {
         return text.empty() ? std::string( "the name of an interface is needed" ) : std::string();
      } );
   target->require_option( 1, 2 );
   command->footer( "Exit status: 0 whatever would be lost, 2 bad input or usage, or no such next "
                    "hop or interface, 3\nsomething of the tables was left out.\n\n"
                    "Example:\n"
                    "  velmpls impact --lfib labels.json --neighbors neighbors.json \\\n"
                    "    --interface eth1" );
}

} // namespace Vel::Agent
