#include "agent/world/HardwareState.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <unistd.h>

#include "agent/import/ImportError.h"

namespace Vel::Agent {

namespace {

using nlohmann::json;

constexpr std::string_view versionField = "velmplsHardwareState";
constexpr int knownVersion = 1;
constexpr int deepestProtection = 8; // as deep as hardware follows
constexpr int deepestNesting = 64;   // as in label tables

/// What is wrong with a file; load() catches it.
struct Unsound : std::runtime_error {
   using std::runtime_error::runtime_error;
};

U64 natural( const json& number, U64 largest ) {
   if ( !number.is_number_unsigned() || number.get< U64 >() > largest ) {
      throw Unsound( number.dump() + " is no number from 0 to " + std::to_string( largest ) );
   }
   return number.get< U64 >();
}
constexpr U64 largestHwId = U64{ 1 } << 62;

const json& fieldOf( const json& in, std::string_view name ) {
   const auto at = in.find( name );
   if ( at == in.end() ) {
      throw Unsound( "\"" + std::string( name ) + "\" is missing" );
   }
   return *at;
}

// --- Words.

template< class E >
json wordOf( E value ) {
   return std::string( stringValue( value ) );
}

template< class E >
E valueOf( const json& word ) {
   const auto text = word.get< std::string >();
   if ( const std::optional< E > value = enumParse< E >( text ) ) {
      return *value;
   }
   throw Unsound( "\"" + text + "\" is not known" );
}

constexpr std::array< std::string_view, 3 > payloads{ "ipv4", "ipv6", "autodetect" };
constexpr std::array< std::string_view, 2 > ttlModes{ "uniform", "pipe" };

// Both are numbered from 1, 0 being undefined.
template< size_t count >
json optionalWord( const std::array< std::string_view, count >& words, size_t value ) {
   return value == 0 ? json() : json( std::string( words.at( value - 1 ) ) );
}
template< class E, size_t count >
E optionalValue( const std::array< std::string_view, count >& words, const json& word ) {
   if ( word.is_null() ) {
      return E{};
   }
   for ( size_t i = 0; i < count; ++i ) {
      if ( word.get< std::string >() == words[i] ) {
         return static_cast< E >( i + 1 );
      }
   }
   throw Unsound( "\"" + word.get< std::string >() + "\" is not known" );
}

// --- Interfaces: an ordinary one by its name, another agent's by its kind and name.

void writeIntf( json& via, IntfId intf, const Interfaces& interfaces ) {
   if ( intf.empty() ) {
      return;
   }
   const auto kind = Interfaces::foreignKind( intf );
   via[kind ? textOf( *kind ) : "interface"] = interfaces.name( intf );
}

IntfId readIntf( const json& via, Interfaces& interfaces ) {
   for ( const auto& [kind, name] : EnumNames< ForeignFec::Kind >::names ) {
      if ( const auto at = via.find( name ); at != via.end() ) {
         return interfaces.foreignIs( kind, at->get< std::string >() );
      }
   }
   return interfaces.intfIs( via.value( "interface", std::string() ) );
}

// --- Vias.

json viaToJson( const Fib::FecVia& via, const Interfaces& interfaces ) {
   json out{ { "action", wordOf( via.labelAction ) } };
   writeIntf( out, via.intf, interfaces );
   if ( !via.nextHop.empty() ) {
      out["nextHop"] = via.nextHop.text();
   }
   for ( size_t i = 0; i < via.labelStack.stackSize(); ++i ) {
      out["outLabels"].push_back( via.labelStack.label( i ).value() );
   }
   if ( via.payloadType != Mpls::PayloadType::undefined ) {
      out["payload"] = optionalWord( payloads, static_cast< size_t >( via.payloadType ) );
   }
   if ( via.ttlMode != Mpls::TtlMode::undefined ) {
      out["ttlMode"] = optionalWord( ttlModes, static_cast< size_t >( via.ttlMode ) );
   }
   if ( via.drop ) {
      out["drop"] = true;
   }
   return out;
}

Fib::FecVia viaFromJson( const json& in, Interfaces& interfaces ) {
   Fib::FecVia via;
   via.labelAction = valueOf< MplsLabelAction >( fieldOf( in, "action" ) );
   via.intf = readIntf( in, interfaces );
   if ( const auto at = in.find( "nextHop" ); at != in.end() ) {
      const auto address = IpGenAddr::parse( at->get< std::string >() );
      if ( !address ) {
         throw Unsound( at->dump() + " is not an address" );
      }
      via.nextHop = *address;
   }
   for ( const json& label : in.value( "outLabels", json::array() ) ) {
      if ( !via.labelStack.push( static_cast< U32 >( natural( label, MplsLabel::maxValue ) ) ) ) {
         throw Unsound( "more outgoing labels than hardware takes" );
      }
   }
   via.payloadType = optionalValue< Mpls::PayloadType >( payloads, in.value( "payload", json() ) );
   via.ttlMode = optionalValue< Mpls::TtlMode >( ttlModes, in.value( "ttlMode", json() ) );
   via.drop = in.value( "drop", false );
   return via;
}

// --- Routes.

json routeToJson( const Driver::HwState::Route& route ) {
   json labels;
   for ( size_t depth = 0; depth < Mpls::RouteKey::maxLabels && !route.key.label( depth ).null();
         ++depth ) {
      labels.push_back( route.key.label( depth ).value() );
   }
   json out{ { "vrf", route.vrfId },
             { "stack", labels },
             { "hwId", route.hwId },
             { "action", wordOf( route.operation.action ) } };
   out["payload"] = optionalWord( payloads, static_cast< size_t >( route.operation.payloadType ) );
   out["ttlMode"] = optionalWord( ttlModes, static_cast< size_t >( route.operation.ttlMode ) );
   return out;
}

Driver::HwState::Route routeFromJson( const json& in ) {
   std::array< MplsLabel, Mpls::RouteKey::maxLabels > stack;
   const json& labels = fieldOf( in, "stack" );
   if ( labels.empty() || labels.size() > stack.size() ) {
      throw Unsound( "a stack of " + std::to_string( labels.size() ) + " labels" );
   }
   for ( size_t i = 0; i < labels.size(); ++i ) {
      stack[i] = MplsLabel( static_cast< U32 >( natural( labels[i], MplsLabel::maxValue ) ) );
   }
   return { static_cast< VrfId >( natural( fieldOf( in, "vrf" ), 0 ) ), // there is one
            Mpls::RouteKey( stack[0], stack[1], stack[2] ),
            natural( fieldOf( in, "hwId" ), largestHwId ),
            { valueOf< MplsLabelAction >( fieldOf( in, "action" ) ),
              optionalValue< Mpls::PayloadType >( payloads, fieldOf( in, "payload" ) ),
              optionalValue< Mpls::TtlMode >( ttlModes, fieldOf( in, "ttlMode" ) ) } };
}

// --- The whole.

Driver::HwState stateFromJson( const json& in, Interfaces& interfaces ) {
   if ( fieldOf( in, versionField ) != json( knownVersion ) ) {
      throw Unsound( "version " + fieldOf( in, versionField ).dump() +
                     " is unknown; this program reads version 1" );
   }
   Driver::HwState state;
   // Numbers are left to give out, and 0 names no FEC.
   state.nextHwId = natural( fieldOf( in, "nextHwId" ), largestHwId / 2 );
   if ( state.nextHwId == 0 ) {
      throw Unsound( "the next FEC cannot get the number 0" );
   }
   for ( const json& vrf : fieldOf( in, "mplsRouting" ) ) {
      state.mplsRouting.push_back( static_cast< VrfId >( natural( vrf, 0 ) ) );
   }
   Hash< U64, U64 > known; // FECs, and their backups
   HashSet< Mpls::RouteKey > routes;
   for ( const json& fec : fieldOf( in, "fecs" ) ) {
      Driver::HwState::Fec& made = state.fecs.emplace_back();
      made.hwId = natural( fieldOf( fec, "hwId" ), largestHwId );
      made.backupHwId = natural( fec.value( "backupHwId", json( 0U ) ), largestHwId );
      if ( made.hwId == 0 || made.hwId >= state.nextHwId ||
           !known.emplace( made.hwId, made.backupHwId ).second ) {
         throw Unsound( "the FEC " + std::to_string( made.hwId ) + " cannot be" );
      }
      for ( const json& via : fieldOf( fec, "vias" ) ) {
         made.via.push_back( viaFromJson( via, interfaces ) );
      }
   }
   for ( const Driver::HwState::Fec& fec : state.fecs ) {
      // A FEC that a restart has found may have a backup that has been given a backup since.
      U64 backup = fec.backupHwId;
      for ( int depth = 0; backup != 0; ++depth ) {
         const U64* const next = known.find( backup );
         if ( next == nullptr || depth == deepestProtection ) {
            throw Unsound( "the FEC " + std::to_string( fec.hwId ) + " has the backup " +
                           std::to_string( fec.backupHwId ) + ", which cannot be" );
         }
         backup = *next;
      }
   }
   for ( const json& route : fieldOf( in, "routes" ) ) {
      state.routes.push_back( routeFromJson( route ) );
      if ( !routes.insert( state.routes.back().key ) ) {
         throw Unsound( "two routes for one label" );
      }
      if ( !known.has( state.routes.back().hwId ) ) {
         throw Unsound( "a route into the FEC " + std::to_string( state.routes.back().hwId ) +
                        ", which is not there" );
      }
   }
   return state;
}

} // namespace

HardwareStateFile::HardwareStateFile( std::string path ) : path_( std::move( path ) ) {
   namespace fs = std::filesystem;
   std::error_code unknown;
   fs::path leadsTo = path_;
   if ( fs::is_symlink( leadsTo, unknown ) && !fs::exists( leadsTo, unknown ) ) {
      // The link names a file that is still to be made.
      leadsTo = leadsTo.parent_path() / fs::read_symlink( leadsTo, unknown );
   }
   const fs::path found = fs::weakly_canonical( leadsTo, unknown );
   target_ = unknown ? path_ : found.string();
}

HardwareStateFile::~HardwareStateFile() {
   if ( lock_ >= 0 ) {
      ::close( lock_ );
   }
}

std::optional< std::string > HardwareStateFile::take() {
   const std::string beside = target_ + ".lock";
   constexpr mode_t everybody = 0666;
   lock_ = ::open( beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, everybody );
   if ( lock_ < 0 ) {
      return beside + ": cannot be opened: " + std::strerror( errno );
   }
   if ( ::flock( lock_, LOCK_EX | LOCK_NB ) == 0 ) {
      return std::nullopt;
   }
   return errno == EWOULDBLOCK
             ? path_ + ": another run has this hardware; one can have it at a time"
             : beside + ": cannot be locked: " + std::strerror( errno );
}

std::optional< Driver::HwState > HardwareStateFile::load( Interfaces& interfaces,
                                                          std::string& fault ) const {
   if ( ::access( target_.c_str(), F_OK ) != 0 && errno == ENOENT ) {
      return Driver::HwState();
   }
   const std::optional< std::string > text = readFile( target_, fault );
   if ( !text ) {
      fault = path_ + ": " + fault;
      return std::nullopt;
   }
   const auto shallow = []( int depth, json::parse_event_t, json& ) {
      if ( depth > deepestNesting ) {
         throw Unsound( "more than " + std::to_string( deepestNesting ) + " levels" );
      }
      return true;
   };
   fault = path_ + ": not a state of the hardware: ";
   try {
      return stateFromJson( json::parse( *text, shallow ), interfaces );
   } catch ( const json::parse_error& wrong ) {
      fault += "no JSON from byte " + std::to_string( wrong.byte ) + " on";
   } catch ( const json::exception& ) {
      fault += "a value is of another kind than it should be";
   } catch ( const Unsound& wrong ) {
      fault += wrong.what();
   }
   return std::nullopt;
}

namespace {

/// On the disk when this returns true.
bool writeDurably( const std::string& file, std::string_view text ) {
   constexpr mode_t everybody = 0666;
   const int fd = ::open( file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, everybody );
   bool good = fd >= 0;
   while ( good && !text.empty() ) {
      const ssize_t written = ::write( fd, text.data(), text.size() );
      good = written > 0 || ( written < 0 && errno == EINTR );
      text.remove_prefix( written > 0 ? static_cast< size_t >( written ) : 0 );
   }
   good = good && ::fsync( fd ) == 0;
   return fd >= 0 && ::close( fd ) == 0 && good;
}

} // namespace

std::optional< std::string > HardwareStateFile::save( const Driver::HwState& state,
                                                      const Interfaces& interfaces ) const {
   json out{ { std::string( versionField ), knownVersion },
             { "nextHwId", state.nextHwId },
             { "mplsRouting", state.mplsRouting },
             { "fecs", json::array() },
             { "routes", json::array() } };
   for ( const Driver::HwState::Fec& fec : state.fecs ) {
      json made{ { "hwId", fec.hwId }, { "vias", json::array() } };
      if ( fec.backupHwId != 0 ) {
         made["backupHwId"] = fec.backupHwId;
      }
      for ( const Fib::FecVia& via : fec.via ) {
         made["vias"].push_back( viaToJson( via, interfaces ) );
      }
      out["fecs"].push_back( std::move( made ) );
   }
   for ( const Driver::HwState::Route& route : state.routes ) {
      out["routes"].push_back( routeToJson( route ) );
   }
   const std::string beside = target_ + ".new";
   if ( !writeDurably( beside, out.dump() + '\n' ) ||
        std::rename( beside.c_str(), target_.c_str() ) != 0 ) {
      const std::string why = std::strerror( errno );
      ::unlink( beside.c_str() );
      return path_ + ": the state of the hardware could not be written: " + why;
   }
   const std::string folder = std::filesystem::path( target_ ).parent_path().string();
   if ( const int fd = ::open( folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC );
        fd >= 0 ) { // the rename holds even if the folder cannot be synced
      ::fsync( fd );
      ::close( fd );
   }
   return std::nullopt;
}

} // namespace Vel::Agent
