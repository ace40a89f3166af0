// velmpls forward: what happens to a frame once a label table is in hardware.

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

constexpr size_t maxFrameBytes = 9216; // a jumbo frame

struct ForwardOptions {
   RunOptions run;
   std::vector< std::string > frames;
};

int digitOf( char c ) {
   if ( c >= '0' && c <= '9' ) {
      return c - '0';
   }
   const char lower = static_cast< char >( c | 0x20 );
   return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// The bytes that the hex digits stand for. Nothing when they stand for none; `fault` then says
/// why.
std::optional< Driver::Bytes > frameFromHex( const std::string& hex, std::string& fault ) {
   Driver::Bytes bytes;
   size_t digits = 0;
   for ( size_t i = 0; i < hex.size(); ++i ) {
      if ( hex[i] == ' ' || hex[i] == ':' ) {
         continue;
      }
      const int digit = digitOf( hex[i] );
      if ( digit < 0 ) {
         fault = joinText( "character ", i + 1, " is not a hexadecimal digit" );
         return std::nullopt;
      }
      if ( digits++ % 2 == 0 ) {
         bytes.push_back( static_cast< uint8_t >( digit << 4 ) );
      } else {
         bytes.back() = static_cast< uint8_t >( bytes.back() | digit );
      }
      if ( bytes.size() > maxFrameBytes ) {
         fault = joinText( "longer than ", maxFrameBytes, " bytes" );
         return std::nullopt;
      }
   }
   if ( digits % 2 != 0 ) {
      fault = joinText( "an odd number of hexadecimal digits (", digits, ")" );
      return std::nullopt;
   }
   if ( bytes.empty() ) {
      fault = "no bytes";
      return std::nullopt;
   }
   return bytes;
}

void appendHex( std::string& out, Driver::ByteView bytes ) {
   constexpr std::string_view digits = "0123456789abcdef";
   for ( const uint8_t byte : bytes ) {
      out += digits[byte >> 4];
      out += digits[byte & 15];
   }
}

std::string linesOf( const Driver::ForwardResult& result, const Interfaces& interfaces ) {
   std::string lines;
   for ( const Driver::OutgoingFrame& frame : result.frames ) {
      lines += interfaces.name( frame.intf ) + ' ';
      appendHex( lines, frame.bytes );
      lines += '\n';
   }
   if ( result.frames.empty() ) {
      lines = joinText( "drop: ", result.text.empty() ? textOf( result.drop ) : result.text, "\n" );
   }
   return lines;
}

int runForward( const ForwardOptions& options ) {
   std::vector< Driver::Bytes > frames;
   for ( const std::string& hex : options.frames ) {
      std::string fault;
      if ( auto frame = frameFromHex( hex, fault ) ) {
         frames.push_back( std::move( *frame ) );
      } else {
         std::cerr << "--frame " << frames.size() + 1 << ": " << fault << '\n';
         return ExitStatus::badInput;
      }
   }
   const AgentRun run( options.run, false );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   LabelAgent& agent = run.agent();
   for ( const Driver::Bytes& frame : frames ) {
      std::cout << linesOf( agent.hardware().forward( LabelAgent::vrfId, frame ),
                            agent.interfaces() );
   }
   std::cout.flush();
   if ( !reportWritten( std::cout.good() ) ) {
      return ExitStatus::badInput;
   }
   run.complain();
   return run.incomplete() ? ExitStatus::incomplete : ExitStatus::done;
}

} // namespace

void addForwardCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< ForwardOptions >();
   CLI::App* const command = addCommand(
      app, run, "forward", "Program label tables into a software switch and send frames through it",
      options, runForward );
   addRunOptions( *command, options->run );
   addHardwareBefore( *command, options->run );
   command
      ->add_option( "--frame", options->frames,
                    "An Ethernet frame as hexadecimal digits; blanks and colons may stand between "
                    "them. Several are sent one after the other" )
      ->required()
      ->type_name( "HEX" )
      ->allow_extra_args( false );
   command->footer( "Prints a line for each frame that leaves: the interface and the bytes. For a "
                    "frame that does not:\n\"drop: \" and the reason.\n\n"
                    "Example (label 16001, TTL 64, an empty IPv4 packet):\n"
                    "  velmpls forward --lfib labels.json --neighbors neighbors.json \\\n"
                    "    --frame '020000000001 020000000002 8847 03e81140 "
                    "450000140000000040fd61e80a0001020a000304'" );
}

} // namespace Vel::Agent
