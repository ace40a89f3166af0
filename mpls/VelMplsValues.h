// The values that the records of MplsSm are made of: keys, reasons, what is waited for.

#pragma once

#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "mpls/VelMplsHwTypes.h"
#include "platform/values/LfibTypes.h"

namespace Vel {

/// The time of what has not happened, in seconds of the clock.
constexpr double neverTime = std::numeric_limits< double >::infinity();

/// Key of a next hop: address and egress interface. An empty interface: found by the route
/// resolver.
struct IpAddrIntfId {
   IpGenAddr ipGenAddr;
   IntfId l3Intf;

   U64 hash() const { return mixBits( ipGenAddr.hash() + l3Intf.hash() ); }
   friend auto operator<=>( const IpAddrIntfId&, const IpAddrIntfId& ) = default;
   /// From the text form; nothing when the text is no such value.
   VEL_EXPORT static std::optional< IpAddrIntfId > parse( std::string_view text );
};
/// "Value('Vel::IpAddrIntfId', ** {...})".
VEL_EXPORT void appendText( std::string& out, const IpAddrIntfId& key );

/// The kind of via set that an L3 adjacency was built from.
enum class L3AdjLFibAdjType : U32 {
   adjTypeUnknown = 0,       ///< no adjacency to classify
   adjTypeRegular = 1,       ///< vias resolved through next hops
   adjTypeDynamicTunnel = 2, ///< at least one via leaves through a dynamic tunnel
   adjTypeNexthopGroup = 3,  ///< at least one via leaves through a next-hop group
};
template<>
struct EnumNames< L3AdjLFibAdjType > {
   static constexpr std::array< std::pair< L3AdjLFibAdjType, std::string_view >, 4 > names{
      { { L3AdjLFibAdjType::adjTypeUnknown, "adjTypeUnknown" },
        { L3AdjLFibAdjType::adjTypeRegular, "adjTypeRegular" },
        { L3AdjLFibAdjType::adjTypeDynamicTunnel, "adjTypeDynamicTunnel" },
        { L3AdjLFibAdjType::adjTypeNexthopGroup, "adjTypeNexthopGroup" } } };
};

/// Why an L3 adjacency is to be reviewed; of several reasons the last.
enum class L3AdjReview : U32 {
   none = 0, ///< it is not
   /// Whether it can go: nothing that it is made of depends on its routes. Stays before the others,
   /// which all mean that it is to be programmed.
   routeLeft,
   made,           ///< it is new
   viaSetChanged,  ///< or may have changed: the LFIB is read ahead of its announcements
   nextHopChanged, ///< one that it resolves through
   l2AdjReported,  ///< its L2 adjacency: refused, no longer refused, or left by another
   fecAnswered,    ///< its FEC has another hardware id, or none
   backupLooked,   ///< another look at the backup that it waits for, without news of it
   backupNews,     ///< what it waits for under a backup's via set, or a backup's FEC
   /// Whom it protects, where the pop of those that share its protection is, or whether a route that
   /// joins may meet its backup.
   protectionChanged,
   routingOn, ///< label forwarding came on, or the VRF has got a number
};
template<>
struct EnumNames< L3AdjReview > {
   static constexpr std::array< std::pair< L3AdjReview, std::string_view >, 11 > names{
      { { L3AdjReview::none, "none" },
        { L3AdjReview::routeLeft, "routeLeft" },
        { L3AdjReview::made, "made" },
        { L3AdjReview::viaSetChanged, "viaSetChanged" },
        { L3AdjReview::nextHopChanged, "nextHopChanged" },
        { L3AdjReview::l2AdjReported, "l2AdjReported" },
        { L3AdjReview::fecAnswered, "fecAnswered" },
        { L3AdjReview::backupLooked, "backupLooked" },
        { L3AdjReview::backupNews, "backupNews" },
        { L3AdjReview::protectionChanged, "protectionChanged" },
        { L3AdjReview::routingOn, "routingOn" } } };
};

/// How vias pop: what they lay bare, and what becomes of the TTL. A pop can travel with a route only
/// where all ways of the route pop alike.
struct PopForm {
   bool pops = false;
   Mpls::PayloadType payloadType = Mpls::PayloadType::undefined;
   Mpls::TtlMode ttlMode = Mpls::TtlMode::undefined;

   friend bool operator==( const PopForm&, const PopForm& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const PopForm& form );

/// What an adjacency waits for before it can have the backup that its via set names.
enum class BackupAwaits : U32 {
   nothing = 0, ///< it has it, or is to have none
   viaSet = 1,  ///< the backup's via set, which is missing from the LFIB
   review = 2,  ///< the processing of the backup's adjacency
   fitness = 3, ///< an end of the nesting: the backup has one itself, or the adjacency is one
   otherFec = 4 ///< another FEC of the backup; the adjacency is an external FEC and works meanwhile
};
template<>
struct EnumNames< BackupAwaits > {
   static constexpr std::array< std::pair< BackupAwaits, std::string_view >, 5 > names{
      { { BackupAwaits::nothing, "nothing" },
        { BackupAwaits::viaSet, "viaSet" },
        { BackupAwaits::review, "review" },
        { BackupAwaits::fitness, "fitness" },
        { BackupAwaits::otherFec, "otherFec" } } };
};

/// The backup that an adjacency is to have and does not have yet.
struct AwaitedBackup {
   Mpls::LfibViaSetKey viaSetKey; ///< none when nothing is awaited
   BackupAwaits awaits = BackupAwaits::nothing;
   U32 looks = 0; ///< in a row that were no use

   /// The adjacency is left as it is until the wait is over.
   bool holdsBack() const {
      return awaits != BackupAwaits::nothing && awaits != BackupAwaits::otherFec;
   }
   friend bool operator==( const AwaitedBackup&, const AwaitedBackup& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const AwaitedBackup& awaited );

/// The vias that will be written into one hardware FEC, in via-index order, and how.
class ProgrammableMplsFecVias {
 public:
   const std::map< Mpls::LfibViaIndexRange, Mpls::LfibMplsVia >& via() const { return via_; }
   const Mpls::LfibMplsVia& via( Mpls::LfibViaIndexRange index ) const {
      const auto at = via_.find( index );
      return at == via_.end() ? nullValueOf< Mpls::LfibMplsVia >() : at->second;
   }
   bool viaHas( Mpls::LfibViaIndexRange index ) const { return via_.contains( index ); }
   void viaIs( Mpls::LfibViaIndexRange index, const Mpls::LfibMplsVia& via ) { via_[index] = via; }
   void viaDel( Mpls::LfibViaIndexRange index ) { via_.erase( index ); }
   void viaDelAll() { via_.clear(); }
   size_t vias() const { return via_.size(); }
   MplsFecProgAction progAction() const { return progAction_; }
   void progActionIs( MplsFecProgAction action ) { progAction_ = action; }
   friend bool operator==( const ProgrammableMplsFecVias&,
                           const ProgrammableMplsFecVias& ) = default;

 private:
   std::map< Mpls::LfibViaIndexRange, Mpls::LfibMplsVia > via_;
   MplsFecProgAction progAction_ = MplsFecProgAction::unknownAction;
};

} // namespace Vel
