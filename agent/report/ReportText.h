// ReportText: the pieces that reports are written with.

#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

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

/// Blanks between the columns of a report.
inline constexpr size_t columnGap = 2;

/// Declares the option --format, "text" or "json". `format` must outlive the parsing.
void addReportFormat( CLI::App& app, std::string& format );
/// Complains of a report that standard output could not take; hands the answer on.
bool reportWritten( bool written );
/// The text without what would steer a terminal.
std::string harmlessText( std::string text );

} // namespace Vel::Agent
