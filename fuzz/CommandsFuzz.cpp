// Commands: the program from its arguments to its reports, with input files of every kind.
//
//    explain 16 --keep-going          the command, its argument and its options
//    %% lfib                          a label table; the next one is its next state
//    {"16":{"inLabel":16, ...
//    %% neighbors                     also: state, fault
//    [...
//
// Options that name files, and those that could make a run long, are given by the harness.

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

#include "agent/cli/TableOptions.h"
#include "agent/cli/Velmpls.h"
#include "fuzz/Files.h"
#include "fuzz/Fuzz.h"

namespace Vel::Fuzz {

using namespace Agent;

namespace {

constexpr std::array< std::string_view, 7 > commands{ "program", "forward", "explain", "audit",
                                                      "impact",  "plan",    "diff" };
constexpr std::array< std::string_view, 18 > options{ "--format",         "--lfib-format",
                                                      "--keep-going",     "--without-fecs",
                                                      "--quiet",          "--preview-sweep",
                                                      "--label",          "--state",
                                                      "--route-capacity", "--adjacency-capacity",
                                                      "--fec-capacity",   "--max-stale-share",
                                                      "--next-hop",       "--interface",
                                                      "--frame",          "--limit",
                                                      "--fault",          "--help" };

bool isOneOf( const auto& list, std::string_view word ) {
   return std::ranges::find( list, word ) != list.end();
}

class Redirected {
 public:
   explicit Redirected( std::ostream& stream ) : stream_( stream ), buffer_( stream.rdbuf() ) {
      stream_.rdbuf( text_.rdbuf() );
   }
   Redirected( const Redirected& ) = delete;
   Redirected& operator=( const Redirected& ) = delete;
   ~Redirected() {
      stream_.rdbuf( buffer_ );
      stream_.clear();
   }
   std::string text() const { return text_.str(); }

 private:
   std::ostream& stream_;
   std::streambuf* buffer_;
   std::ostringstream text_;
};

/// The words of a command line out of the parts of an input; none when they make no command.
class CommandLine {
 public:
   CommandLine( std::string_view text, const Files& files ) : files_( files ) {
      size_t end = std::min( text.find( separator ), text.size() );
      argumentsAre( std::string( text.substr( 0, end ) ) );
      while ( end < text.size() ) {
         text.remove_prefix( end + separator.size() );
         end = std::min( text.find( separator ), text.size() );
         const std::string_view part = text.substr( 0, end );
         const size_t line = std::min( part.find( '\n' ), part.size() );
         partIs( part.substr( 0, line ), part.substr( std::min( line + 1, part.size() ) ) );
      }
   }

   const std::string& command() const { return words_[1]; }
   std::vector< std::string >& words() { return words_; }

 private:
   static constexpr std::string_view separator = "\n%% ";

   void argumentsAre( const std::string& line ) {
      std::istringstream in( line );
      std::string word;
      in >> word;
      words_ = { "velmpls", isOneOf( commands, word ) ? word : "program" };
      while ( in >> word ) {
         if ( word == "--for" ) {
            add( word, "30" );
         } else if ( word.front() == '-' ? isOneOf( options, word ) : command() != "diff" ) {
            words_.push_back( word );
         }
      }
   }

   void partIs( std::string_view name, std::string_view text ) {
      constexpr std::array< std::string_view, 3 > files{ "lfib0", "lfib1", "lfib2" };
      if ( name == "lfib" && tables_ < files.size() ) {
         const std::string path = files_.write( files[tables_++], text );
         if ( command() == "diff" ) {
            words_.push_back( path );
         } else {
            add( command() == "plan" && tables_ == 2 ? "--next" : "--lfib", path );
         }
      } else if ( command() == "diff" ) {
         return;
      } else if ( name == "neighbors" ) {
         add( "--neighbors", files_.write( name, text ) );
      } else if ( name == "state" ) {
         add( "--hardware-state", files_.write( name, text ) );
      } else if ( name == "fault" ) {
         add( "--fault", std::string( text ) );
      }
   }

   void add( std::string_view option, std::string value ) {
      words_.emplace_back( option );
      words_.push_back( std::move( value ) );
   }

   const Files& files_;
   std::vector< std::string > words_;
   size_t tables_ = 0;
};

/// What the program says of itself, and not of its input, is a fault of its own.
void checkComplaints( const std::string& complaints ) {
   std::istringstream in( complaints );
   for ( std::string line; std::getline( in, line ); ) {
      const bool ownFault = line.starts_with( "velmpls: " ) &&
                            !line.starts_with( "velmpls: at " ) &&
                            line.find( "left out" ) == std::string::npos &&
                            line.find( "nothing was applied" ) == std::string::npos &&
                            line.find( "no neighbours were given" ) == std::string::npos;
      VEL_ASSERT_TEXT( !ownFault, "the program works", line, "fuzz", complaints );
   }
}

} // namespace

void fuzzCommands( ByteView bytes ) {
   static const Files files( "commands" );
   // A zero byte ends an argument.
   const std::string_view text = textIn( bytes );
   CommandLine line( text.substr( 0, text.find( '\0' ) ), files );
   std::vector< char* > arguments;
   for ( std::string& word : line.words() ) {
      arguments.push_back( word.data() );
   }
   const Redirected out( std::cout );
   const Redirected err( std::cerr );
   const int status = velmpls( static_cast< int >( arguments.size() ), arguments.data(), "1" );
   checkComplaints( err.text() );
   VEL_ASSERT( status == ExitStatus::done || status == ExitStatus::incomplete ||
               status == ExitStatus::badInput );
   VEL_ASSERT( status != ExitStatus::badInput || ( out.text().empty() && !err.text().empty() ) );
}

} // namespace Vel::Fuzz
