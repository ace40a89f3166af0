// ResultPrinter: a program result for people and for programs.
//
// Both forms are written as they are read, route by route: a table of a million routes is never
// held as text. docs/formats.md describes the JSON form.

#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>

#include "agent/report/ProgramResult.h"

namespace Vel::Agent {

/// What the text form is written for.
struct TextStyle {
   size_t columns = 0; ///< width of the terminal; 0: no limit. Less important columns are left out
   bool colour = false;

   /// For standard output as it is: a terminal's width, and colour unless the environment is
   /// against it (NO_COLOR, or a dumb terminal).
   static TextStyle ofStandardOutput();
};

/// Which routes are shown; the summary is of all of them.
struct ResultFilter {
   std::vector< Mpls::RouteKey > labels;      ///< none: all
   std::vector< Inspect::LabelState > states; ///< none: all

   bool shows( const ProgramResult& result, size_t i ) const;
};

/// One JSON object, a line each route. False when the stream could not take it.
bool printJson( std::ostream& out, const ProgramResult& result, bool startup = false,
                const ResultFilter& filter = {} );
/// A table, a line each via, then what keeps a route out, and a summary in the last line.
bool printText( std::ostream& out, const ProgramResult& result, const TextStyle& style = {},
                bool startup = false, const ResultFilter& filter = {} );

} // namespace Vel::Agent
