#include "agent/report/JsonWriter.h"

#include <algorithm>
#include <ostream>

#include <nlohmann/json.hpp>

namespace Vel::Agent {

using Inspect::Value;

namespace {

// Names from outside may hold bytes that are no text. Plain ASCII, the usual case, is copied.
void appendJson( std::string& out, std::string_view text ) {
   const auto plain = []( char c ) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
   if ( std::ranges::all_of( text, plain ) ) {
      out += '"';
      out += text;
      out += '"';
   } else {
      out +=
         nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
   }
}

struct AppendJson {
   std::string& out;

   void operator()( std::monostate ) const { out += "null"; }
   void operator()( bool value ) const { appendText( out, value ); }
   void operator()( U64 value ) const { appendText( out, value ); }
   void operator()( double value ) const { out += nlohmann::json( value ).dump(); }
   void operator()( const std::string& text ) const { appendJson( out, text ); }
   void operator()( const Value::List& list ) const {
      char before = '[';
      for ( const Value& value : list ) {
         out += before;
         before = ',';
         std::visit( *this, value.as() );
      }
      out += list.empty() ? "[]" : "]";
   }
   void operator()( const Value::Table& table ) const {
      char before = '{';
      for ( const auto& [name, value] : table ) {
         out += before;
         before = ',';
         appendJson( out, name );
         out += ':';
         std::visit( *this, value.as() );
      }
      out += table.empty() ? "{}" : "}";
   }
};

Value stackValue( Mpls::RouteKey key ) {
   Value stack;
   for ( size_t depth = 0; depth < Mpls::RouteKey::maxLabels && !key.label( depth ).null();
         ++depth ) {
      stack.push_back( key.label( depth ).value() );
   }
   return stack;
}

} // namespace

JsonWriter::JsonWriter( std::ostream& out ) : out_( out ), closing_( "}" ) {
   out_.text() += '{';
}

void JsonWriter::next() {
   out_.lineDone();
   out_.text() += first_ ? "" : ",";
   out_.text() += lineDue_ ? "\n" : "";
   first_ = lineDue_ = false;
}

void JsonWriter::next( std::string_view name ) {
   next();
   appendJson( out_.text(), name );
   out_.text() += ':';
}

void JsonWriter::member( std::string_view name, const Value& value ) {
   next( name );
   std::visit( AppendJson{ out_.text() }, value.as() );
}

void JsonWriter::members( const Value& table ) {
   if ( const auto* const members = std::get_if< Value::Table >( &table.as() ) ) {
      for ( const auto& [name, value] : *members ) {
         member( name, value );
      }
   }
}

void JsonWriter::element( const Value& value ) {
   next();
   std::visit( AppendJson{ out_.text() }, value.as() );
}

void JsonWriter::begin( std::string_view name, char opening, char closing ) {
   next( name );
   out_.text() += opening;
   closing_ += closing;
   first_ = true;
}

void JsonWriter::end() {
   out_.text() += lineDue_ ? "\n" : "";
   out_.text() += closing_.back();
   closing_.pop_back();
   first_ = lineDue_ = false;
}

bool JsonWriter::finish() {
   while ( !closing_.empty() ) {
      end();
   }
   out_.text() += '\n';
   return out_.finish();
}

Value textOrNothing( const std::string& text ) {
   return text.empty() ? Value() : Value( text );
}

Value keyValue( Mpls::RouteKey key ) {
   return key.singleLabel() ? Value( key.topLabel().value() ) : stackValue( key );
}

void addLabel( Value& record, Mpls::RouteKey key ) {
   record["label"] = key.topLabel().value();
   if ( !key.singleLabel() ) {
      record["stack"] = stackValue( key );
   }
}

} // namespace Vel::Agent
