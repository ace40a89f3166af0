#include "agent/cli/TableOptions.h"

#include <algorithm>
#include <ostream>

#include <CLI/CLI.hpp>

#include "agent/report/Progress.h"
#include "platform/base/DecimalText.h"
#include "platform/base/Trace.h"

namespace Vel::Agent {

namespace {

// A number that begins with 0 would be read as an octal one.
std::string naturalFault( const std::string& text, U64 most ) {
   return decimalParse( text, most )
             ? std::string()
             : joinText( "\"", text, "\" is not a whole number from 0 to ", most );
}

} // namespace

std::string naturalFault( const std::string& text ) {
   return naturalFault( text, 999'999'999 );
}

std::string longNaturalFault( const std::string& text ) {
   return naturalFault( text, 999'999'999'999'999'999 );
}

std::string emptyFault( const std::string& text ) {
   return text.empty() ? "it is empty" : std::string();
}

std::optional< Mpls::RouteKey > labelOf( const std::string& text ) {
   const std::optional< Mpls::RouteKey > key = Mpls::routeKeyParse( text );
   return key && !key->null() ? key : std::nullopt;
}

std::string labelFault( const std::string& text ) {
   return labelOf( text ) ? std::string()
                          : joinText( "\"", text, "\" is no label (0 to ", MplsLabel::maxValue,
                                      ", or up to three with / between them)" );
}

void addTableOptions( CLI::App& app, TableOptions& options ) {
   app.add_option( "--lfib", options.lfibFiles,
                   "Label table; - for standard input. Several are successive complete states of "
                   "the same table" )
      ->required()
      ->type_name( "FILE" )
      ->allow_extra_args( false );
   app.add_option( "--lfib-format", options.lfibFormat,
                   "Format of the label tables: frr, iproute2 or native. Found from the contents "
                   "when not given" )
      ->type_name( "FORMAT" )
      ->check( []( const std::string& name ) {
         return enumParse< LabelTableFormat >( name )
                   ? std::string()
                   : "\"" + name +
                        "\" is not a format of label tables; there are frr, iproute2 "
                        "and native";
      } );
   app.add_option( "--neighbors", options.neighborFile,
                   "Neighbour table, as `ip -j neigh` prints it; - for standard input" )
      ->type_name( "FILE" )
      ->check( emptyFault );
   app.add_flag( "--keep-going", options.keepGoing,
                 "Leave out what is wrong in a table and apply the rest" );
   app.add_option( "--trace", options.trace,
                   "Write trace to standard error, up to a level from 0 to 9 for each handle; * is "
                   "every handle" )
      ->type_name( "HANDLE/LEVEL[,...]" );
}

std::optional< std::string > traceOn( const std::string& setting ) {
   if ( std::optional< std::string > fault = traceSettingIs( setting ) ) {
      return "--trace: " + *fault;
   }
   const std::vector< std::string > handles = traceHandles();
   for ( size_t at = 0; at < setting.size(); ) {
      const size_t end = std::min( setting.find( ',', at ), setting.size() );
      const std::string entry = setting.substr( at, end - at );
      const std::string handle = entry.substr( 0, entry.find( '/' ) );
      at = end + 1;
      if ( handle == "*" || std::ranges::find( handles, handle ) != handles.end() ) {
         continue;
      }
      std::string known;
      for ( const std::string& one : handles ) {
         known += ( known.empty() ? "" : ", " ) + one;
      }
      return "--trace: there is no handle \"" + handle + "\"; there are " + known;
   }
   return std::nullopt;
}

namespace {

// Lists what is wrong with a file; false when the file is of no use.
bool sound( const std::vector< ImportError >& errors, bool anythingLeft,
            const TableOptions& options, LoadedTables& loaded, Progress& progress,
            std::ostream& complaints ) {
   progress.hide();
   for ( const ImportError& error : errors ) {
      complaints << error.text() << '\n';
   }
   if ( errors.empty() ) {
      return true;
   }
   loaded.leftOut = true;
   return options.keepGoing && anythingLeft;
}

} // namespace

LoadedTables loadTables( const TableOptions& options, Progress& progress,
                         std::ostream& complaints ) {
   LoadedTables loaded;
   // Neighbours first: they say by which interface a next hop is reached.
   if ( !options.neighborFile.empty() ) {
      progress.stage( "reading " + inputName( options.neighborFile ) );
      loaded.neighbors = loadNeighborTable( options.neighborFile );
      if ( !sound( loaded.neighbors.errors, !loaded.neighbors.neighbors.empty(), options, loaded,
                   progress, complaints ) ) {
         loaded.usable = false;
      }
      if ( options.withFecs ) {
         loaded.plan.neighborsAre( loaded.neighbors );
      }
   }
   for ( const std::string& file : options.lfibFiles ) {
      progress.stage( "reading " + inputName( file ) );
      const LabelTable table =
         loadLabelTable( file, enumParse< LabelTableFormat >( options.lfibFormat ) );
      if ( !sound( table.errors, !table.routes.empty(), options, loaded, progress, complaints ) ) {
         loaded.usable = false;
      }
      if ( loaded.usable ) {
         loaded.plan.add( table );
      }
   }
   if ( loaded.leftOut ) {
      complaints << ( loaded.usable ? "velmpls: the above was left out\n"
                                    : "velmpls: nothing was applied\n" );
   }
   return loaded;
}

LabelAgent::Fault applyTables( LabelAgent& agent, const NeighborTable& neighbors,
                               const TableOptions& options, Progress& progress, size_t held ) {
   agent.neighborsAre( neighbors );
   for ( size_t table = 0; table + held < agent.plan().tables(); ++table ) {
      progress.stage( "programming " + inputName( options.lfibFiles[table] ) );
      if ( LabelAgent::Fault fault = agent.apply( table ) ) {
         return fault;
      }
      if ( LabelAgent::Fault fault = agent.settle() ) {
         return fault;
      }
   }
   return std::nullopt;
}

} // namespace Vel::Agent
