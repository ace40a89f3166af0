// JsonWriter: writes a report as one JSON object. The text goes to the stream while the report is
// written, so that a list of a million labels is never held as text. A record is handed over as a
// Value.
//
//    JsonWriter json( out );
//    json.member( "labels", labels.size() );
//    json.beginList( "added" );
//    for ( const RouteKey label : labels ) {
//       json.newLine();
//       json.element( keyValue( label ) );
//    }
//    return json.finish();

#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "agent/report/ReportText.h"
#include "inspect/Value.h"
#include "platform/values/LfibTypes.h"

namespace Vel::Agent {

class JsonWriter {
 public:
   /// Begins the object.
   explicit JsonWriter( std::ostream& out );

   /// The next member, element or closing bracket stands on a line of its own.
   void newLine() { lineDue_ = true; }
   /// Into the object that is open.
   void member( std::string_view name, const Inspect::Value& value );
   /// All members of a table. Anything else has none.
   void members( const Inspect::Value& table );
   void beginObject( std::string_view name ) { begin( name, '{', '}' ); }
   void beginList( std::string_view name ) { begin( name, '[', ']' ); }
   /// Into the list that is open.
   void element( const Inspect::Value& value );
   /// Ends the innermost object or list.
   void end();
   /// Ends all that is open. False when not all of it could be written.
   bool finish();

 private:
   void next();
   void next( std::string_view name );
   void begin( std::string_view name, char opening, char closing );

   TextOut out_;
   std::string closing_; // of all that is open, the innermost last
   bool first_ = true;   // in the innermost
   bool lineDue_ = false;
};

/// The text, or nothing where it is empty.
Inspect::Value textOrNothing( const std::string& text );
/// A number, or a list of the labels of several.
Inspect::Value keyValue( Mpls::RouteKey key );
/// Adds "label", and "stack" for a key of several labels.
void addLabel( Inspect::Value& record, Mpls::RouteKey key );

} // namespace Vel::Agent
