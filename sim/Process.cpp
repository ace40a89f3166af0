#include "sim/Process.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

#include "platform/base/Assert.h"
#include "platform/base/Text.h"
#include "platform/services/SystemLog.h"

namespace Vel::Sim {

namespace {

// In the child: where a failed assertion is reported, and the event that is being carried out.
int reportFile = -1;
size_t eventAt = 0;

void writeAll( int file, const std::string& text ) {
   for ( size_t at = 0; at < text.size(); ) {
      const ssize_t written = ::write( file, text.data() + at, text.size() - at );
      if ( written <= 0 ) {
         ::_exit( 2 ); // nobody listens any more
      }
      at += static_cast< size_t >( written );
   }
}

std::string oneLine( std::string text ) {
   std::ranges::replace( text, '\n', ' ' );
   return text;
}

std::string failedLine( size_t events, U64 frames, const Failure& failure ) {
   return joinText( "failed ", events, " ", frames, " ", failure.check, " ",
                    oneLine( failure.text ), "\n" );
}

void assertionFails( const AssertionFailure& failure ) {
   writeAll( reportFile, failedLine( eventAt + 1, 0, { "assertion", failure.text() } ) );
   ::_exit( 1 );
}

} // namespace

void Reporter::write( const std::string& line ) const {
   writeAll( file_, line );
}

bool Reporter::run( U64 seed, const Scenario& scenario, const HardwareFactory& factory ) {
   reportFile = file_;
   assertionHandlerIs( assertionFails );
   systemLogSinkIs( []( const SystemLogMessage& ) {} ); // nobody reads the logs of so many worlds
   ::alarm( maxRunSeconds );
   write( joinText( "run ", seed, "\n" ) );
   Outcome outcome;
   try {
      outcome = runHere( scenario, factory, []( size_t event ) { eventAt = event; } );
   } catch ( const std::exception& fault ) {
      outcome.events = eventAt + 1;
      outcome.failure = Failure{ "exception", fault.what() };
   }
   write( outcome.failure ? failedLine( outcome.events, outcome.frames, *outcome.failure )
                          : joinText( "passed ", outcome.events, " ", outcome.frames, "\n" ) );
   return !outcome.failure;
}

Process::Process( const std::function< void( Reporter& ) >& work ) {
   int files[2];
   if ( ::pipe( files ) != 0 ) {
      throw std::system_error( errno, std::generic_category(), "pipe" );
   }
   pid_ = ::fork();
   if ( pid_ < 0 ) {
      throw std::system_error( errno, std::generic_category(), "fork" );
   }
   if ( pid_ == 0 ) {
      ::close( files[0] );
      Reporter reporter( files[1] );
      work( reporter );
      ::_exit( 0 );
   }
   ::close( files[1] );
   file_ = files[0];
}

Process::~Process() {
   ::close( file_ );
   if ( !ended_ ) {
      ::kill( pid_, SIGKILL );
      ::waitpid( pid_, nullptr, 0 );
   }
}

bool Process::reportWaits() const {
   return text_.find( '\n' ) != std::string::npos;
}

bool Process::read() {
   char buffer[4096];
   const ssize_t size = ::read( file_, buffer, sizeof( buffer ) );
   if ( size <= 0 ) {
      return false;
   }
   text_.append( buffer, static_cast< size_t >( size ) );
   return true;
}

std::optional< Report > Process::take() {
   while ( reportWaits() ) {
      const size_t end = text_.find( '\n' );
      std::istringstream line( text_.substr( 0, end ) );
      text_.erase( 0, end + 1 );
      std::string word;
      line >> word;
      if ( word == "run" ) {
         running_.emplace();
         line >> running_->seed;
         continue;
      }
      Report report = running_.value_or( Report() );
      running_.reset();
      line >> report.events >> report.frames;
      if ( word == "failed" ) {
         report.failure.emplace();
         line >> report.failure->check >> std::ws;
         std::getline( line, report.failure->text );
      }
      return report;
   }
   return std::nullopt;
}

std::optional< Report > Process::brokenOff() {
   int status = 0;
   if ( !ended_ ) {
      ended_ = true;
      ::waitpid( pid_, &status, 0 );
   }
   std::optional< Report > report = std::exchange( running_, std::nullopt );
   if ( report ) {
      report->failure = Failure{
         "end", WIFSIGNALED( status )
                   ? WTERMSIG( status ) == SIGALRM
                        ? joinText( "it takes longer than ", Reporter::maxRunSeconds, " seconds" )
                        : joinText( "ended by signal ", WTERMSIG( status ), " (",
                                    std::string_view( ::strsignal( WTERMSIG( status ) ) ), ")" )
                   : joinText( "ended with status ", WEXITSTATUS( status ) ) };
      report->events = std::numeric_limits< size_t >::max(); // the child has not said how many
   }
   return report;
}

std::optional< Report > Process::next() {
   while ( true ) {
      if ( std::optional< Report > report = take() ) {
         return report;
      }
      if ( !read() ) {
         return brokenOff();
      }
   }
}

} // namespace Vel::Sim
