// ReportText: the pieces that reports of labels and vias are written with, for people and for
// programs.

#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/values/MplsTypes.h"

namespace CLI {
class App;
}

namespace Vel::Agent {

/// Hands text on in large pieces.
class TextOut {
 public:
   explicit TextOut( std::ostream& out ) : out_( out ) {}
   /// What is to go out; call `lineDone` now and then.
   std::string& text() { return text_; }
   void lineDone();
   void add( std::string_view text ) {
      text_ += text;
      lineDone();
   }
   /// False when not all of it could be written.
   bool finish();

 private:
   std::ostream& out_;
   std::string text_;
};

/// Declares the option --format, "text" or "json". `format` must outlive the parsing.
void addReportFormat( CLI::App& app, std::string& format );
/// The text as a JSON string, with its quotation marks.
std::string jsonText( std::string_view text );
/// `"label":16040`, and `,"stack":[16040,24001]` for a key of several labels.
void appendJsonLabel( std::string& out, Mpls::RouteKey key );
/// The key as one JSON value: a number, or a list of the labels of several.
void appendJsonKey( std::string& out, Mpls::RouteKey key );
/// The text without what would steer a terminal.
std::string harmlessText( std::string text );

} // namespace Vel::Agent
