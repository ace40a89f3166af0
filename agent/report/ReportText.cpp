#include "agent/report/ReportText.h"

#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>

namespace Vel::Agent {

namespace {
constexpr size_t flushBytes = size_t{ 1 } << 16;
} // namespace

void TextOut::lineDone() {
   if ( text_.size() >= flushBytes ) {
      out_.write( text_.data(), static_cast< std::streamsize >( text_.size() ) );
      text_.clear();
   }
}

bool TextOut::finish() {
   out_.write( text_.data(), static_cast< std::streamsize >( text_.size() ) );
   text_.clear();
   out_.flush();
   return out_.good();
}

void addReportFormat( CLI::App& app, std::string& format ) {
   app.add_option( "--format", format, "Form of the result: text (when not given) or json" )
      ->type_name( "FORM" )
      ->check( []( const std::string& form ) {
         return form == "text" || form == "json"
                   ? std::string()
                   : "\"" + form + "\" is not a form of the result; there are text and json";
      } );
}

bool reportWritten( bool written ) {
   if ( !written ) {
      std::cerr << "velmpls: the result could not be written\n";
   }
   return written;
}

// Names of interfaces may hold control characters of UTF-8, U+0080 to U+009F.
std::string harmlessText( std::string text ) {
   for ( size_t at = 0; ( at = text.find( '\xC2', at ) ) != std::string::npos; ++at ) {
      if ( at + 1 < text.size() && static_cast< unsigned char >( text[at + 1] ) < 0xA0 ) {
         text.replace( at, 2, "?" );
      }
   }
   std::ranges::replace_if(
      text, []( char c ) { return ( c >= 0 && c < ' ' ) || c == '\x7F'; }, '?' );
   return text;
}

} // namespace Vel::Agent
