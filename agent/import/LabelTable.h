// A label table as it comes from outside: incoming label stacks, each with the vias that it leaves
// by.
//
// Tables come from a live router (FRR, iproute2), or in a native format that says everything the
// other two cannot. All become the same plain values here, checked one route at a time; nothing
// in them refers to the library. `docs/formats.md` describes the formats and every complaint.
//
// A route may lead into what other agents have: next-hop groups, tunnels, and FECs. A native table
// also defines their content. A name that is used and not defined is no fault: the agent that owns
// it may come up later.
//
// Invariants of a table that was read: routes ascend by stack and no two have the same one; each
// has 1 to `maxVias` vias unless it is ignored or leads into an external FEC; labels are ones that
// RFC 3032 and its successors allow in that place; addresses are canonical unicast addresses;
// interface names could be ones of a Linux host; of one kind and name there is one definition.
// Cost: one pass, about 300 bytes a route of one via.

#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/import/ImportError.h"
#include "platform/base/Text.h"

namespace Vel::Agent {

inline constexpr size_t maxIncomingLabels = 3;
inline constexpr size_t maxOutgoingLabels = 16;
inline constexpr size_t maxVias = 128;
/// Twice the label space: tables with deeper stacks have more routes than there are labels.
inline constexpr size_t maxRoutes = size_t{ 1 } << 21;
/// Definitions of one kind.
inline constexpr size_t maxForeignFecs = size_t{ 1 } << 16;

/// What a via does to the incoming stack.
enum class LabelOperation : uint8_t {
   pop,  ///< takes it off
   swap, ///< takes it off and puts the outgoing labels on
   push, ///< leaves it and puts the outgoing labels on top
   keep  ///< leaves it as it is; in definitions, and into next-hop groups
};

/// What a pop lays bare.
enum class LabelPayload : uint8_t { none, ipv4, ipv6, autodetect };

/// How the TTL of a popped entry travels on (RFC 3443 sections 3.1 to 3.3).
enum class LabelTtlMode : uint8_t { uniform, pipe };

/// What a via leaves by.
enum class LabelOutlet : uint8_t { interface, nextHopGroup, tunnel };

/// One way out. At least one of next hop and interface is set.
struct LabelVia {
   LabelOperation action = LabelOperation::pop;
   LabelPayload payload = LabelPayload::none;    ///< with a pop only, and always there
   LabelTtlMode ttlMode = LabelTtlMode::uniform; ///< means something with a pop only
   std::vector< uint32_t > outLabels;            ///< top first; empty for a pop
   std::string nextHop;   ///< canonical text of an IPv4 or IPv6 address, or empty
   std::string interface; ///< name of the outlet, or empty
   LabelOutlet outlet = LabelOutlet::interface; ///< another one has a name and no next hop

   friend auto operator<=>( const LabelVia&, const LabelVia& ) = default;
};

/// One route.
struct LabelRoute {
   std::vector< uint32_t > stack; ///< incoming labels, top first; never empty
   std::vector< LabelVia > vias;  ///< in the order of the text
   /// Not empty: the route is well-formed, and ends in this router instead of being forwarded.
   std::string ignoredReason;
   /// Protect the others: they are taken while none of those has a way out.
   std::vector< LabelVia > backupVias{};
   bool usableAsPrimaryVias = true; ///< false: only the backup is to be taken
   std::string externalFec{};       ///< not empty: the route leads into it and has no vias

   uint32_t label() const { return stack.front(); }
   bool ignored() const { return !ignoredReason.empty(); }

   friend bool operator==( const LabelRoute&, const LabelRoute& ) = default;
};

/// What another agent has for routes to lead into.
struct ForeignFec {
   enum class Kind : uint8_t { nextHopGroup, tunnel, externalFec };

   Kind kind = Kind::nextHopGroup;
   std::string name;
   std::vector< LabelVia > vias; ///< none leads into a next-hop group
};

enum class LabelTableFormat : uint8_t { frr, iproute2, native };

/// For people, such as "next-hop group".
std::string_view nounOf( ForeignFec::Kind kind );

struct LabelTable {
   LabelTableFormat format = LabelTableFormat::native; ///< means something when a format was found
   std::vector< LabelRoute > routes;
   std::vector< ForeignFec > foreignFecs; ///< in the order of the text
   /// Not empty: the table as a whole is not to be applied. `routes` then holds what is sound.
   std::vector< ImportError > errors;
};

/// Reads a table. `file` is the name that complaints carry. The format is found from the contents
/// unless it is forced. Throws nothing but what running out of memory throws.
LabelTable parseLabelTable( std::string_view text, std::string file,
                            std::optional< LabelTableFormat > forced = std::nullopt );
/// The same from a file, or from standard input when the path is "-".
LabelTable loadLabelTable( const std::string& path,
                           std::optional< LabelTableFormat > forced = std::nullopt );

} // namespace Vel::Agent

template<>
struct Vel::EnumNames< Vel::Agent::LabelOperation > {
   static constexpr std::array< std::pair< Agent::LabelOperation, std::string_view >, 4 > names{
      { { Agent::LabelOperation::pop, "pop" },
        { Agent::LabelOperation::swap, "swap" },
        { Agent::LabelOperation::push, "push" },
        { Agent::LabelOperation::keep, "keep" } } };
};
template<>
struct Vel::EnumNames< Vel::Agent::LabelPayload > {
   static constexpr std::array< std::pair< Agent::LabelPayload, std::string_view >, 4 > names{
      { { Agent::LabelPayload::none, "" },
        { Agent::LabelPayload::ipv4, "ipv4" },
        { Agent::LabelPayload::ipv6, "ipv6" },
        { Agent::LabelPayload::autodetect, "autodetect" } } };
};
template<>
struct Vel::EnumNames< Vel::Agent::LabelTtlMode > {
   static constexpr std::array< std::pair< Agent::LabelTtlMode, std::string_view >, 2 > names{
      { { Agent::LabelTtlMode::uniform, "uniform" }, { Agent::LabelTtlMode::pipe, "pipe" } } };
};
template<>
struct Vel::EnumNames< Vel::Agent::LabelTableFormat > {
   static constexpr std::array< std::pair< Agent::LabelTableFormat, std::string_view >, 3 > names{
      { { Agent::LabelTableFormat::frr, "frr" },
        { Agent::LabelTableFormat::iproute2, "iproute2" },
        { Agent::LabelTableFormat::native, "native" } } };
};
/// As the fields of files are called.
template<>
struct Vel::EnumNames< Vel::Agent::ForeignFec::Kind > {
   static constexpr std::array< std::pair< Agent::ForeignFec::Kind, std::string_view >, 3 > names{
      { { Agent::ForeignFec::Kind::nextHopGroup, "nextHopGroup" },
        { Agent::ForeignFec::Kind::tunnel, "tunnel" },
        { Agent::ForeignFec::Kind::externalFec, "externalFec" } } };
};
