// The neighbour importer: which neighbours count as resolved, and what bad tables are told.

#include "agent/import/NeighborTable.h"

#include <gmock/gmock.h>

#include "tests/agent/ProgramFixtures.h"

namespace VelTest {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST( NeighborTable, resolvedNeedsAMacAddressAndAStateThatUsesIt ) {
   const std::string mac = R"(,"lladdr":"02:00:00:00:00:0A")";
   const std::vector< std::pair< std::string, bool > > cases{
      { mac + R"(,"state":["STALE"])", true },
      { mac + R"(,"router":null,"extern_learn":null,"used":3,"state":["NOARP"])", true },
      { mac, true },
      { mac + R"(,"state":["PERMANENT"],"vlan":4094)", true },
      { mac + R"(,"state":["FAILED"])", false },
      { mac + R"(,"state":["STALE","INCOMPLETE"])", false },
      { R"(,"state":["REACHABLE"])", false } };
   for ( const auto& [fields, resolved] : cases ) {
      SCOPED_TRACE( fields );
      const NeighborTable table =
         parseNeighborTable( R"([{"dst":"FE80::01","dev":"eth0")" + fields + "}]", "t" );
      EXPECT_EQ( errorText( table.errors ), "" );
      ASSERT_THAT( table.neighbors, SizeIs( 1 ) );
      EXPECT_EQ( table.neighbors[0].resolved, resolved );
      EXPECT_EQ( table.neighbors[0].address, "fe80::1" );
      EXPECT_EQ( table.neighbors[0].interface, "eth0" );
      EXPECT_EQ( table.neighbors[0].vlan, fields.ends_with( "4094" ) ? 4094 : 0 );
   }
}

TEST( NeighborTable, tellsWhatIsWrongWithABadTable ) {
   const auto withMac = []( const std::string& mac ) {
      return R"([{"dst":"10.0.0.1","dev":"a","lladdr":")" + mac + "\"}]";
   };
   // Text, and a part of the one complaint. The kernel's fixed mappings are not complained of.
   const std::vector< std::pair< std::string, std::string > > cases{
      { R"([{"dst":"ff02::2","dev":"a","lladdr":"33:33:00:00:00:02","state":["NOARP"]}])", "" },
      { R"([{"dst":"127.0.0.1","dev":"lo","lladdr":"00:00:00:00:00:00","state":["NOARP"]}])", "" },
      { "", "t: the file is empty" },
      { "{}", "t: not a neighbour table" },
      { "[{", "t:1:3: the file ends in the middle" },
      { "[7]", "neighbour 1: the neighbour is 7, not an object" },
      { R"([{"dev":"a"}])", "t:1:2: neighbour 1: the field \"dst\" is missing" },
      { R"([{"dst":"10.0.0.1"}])", "the field \"dev\" is missing" },
      { R"([{"dst":"10.0.0","dev":"a"}])", "\"10.0.0\" is not an IPv4 or IPv6 address" },
      { R"([{"dst":"224.0.0.1","dev":"a"}])", "is a multicast address" },
      { R"([{"dst":"10.0.0.1","dev":"a/b"}])", "has a slash" },
      { R"([{"dst":"10.0.0.1","dev":"a","vlan":4095}])", "beyond its largest value 4094" },
      { R"([{"dst":"10.0.0.1","dev":"a","state":"FAILED"}])", "not a list" },
      { R"([{"dst":"10.0.0.1","dev":"a","state":[1]}])", "the field \"state\" has 1 in it" },
      { withMac( "02:00:00:00:00" ), "is not an Ethernet MAC address" },
      { withMac( "02:00:00:00:00:0g" ), "is not an Ethernet MAC address" },
      { withMac( "02:00:00:00-00:01" ), "is not an Ethernet MAC address" },
      { withMac( "00:00:00:00:00:00" ), "all zero" },
      { withMac( "01:00:5e:00:00:01" ), "is a multicast address" } };
   for ( const auto& [text, complaint] : cases ) {
      SCOPED_TRACE( text );
      const NeighborTable table = parseNeighborTable( text, "t" );
      EXPECT_THAT( errorText( table.errors ), HasSubstr( complaint ) );
      EXPECT_THAT( table.errors, SizeIs( complaint.empty() ? 0 : 1 ) );
      EXPECT_THAT( table.neighbors, IsEmpty() );
   }
   const NeighborTable twice = parseNeighborTable(
      R"([{"dst":"fe80::1","dev":"a"},{"dst":"fe80::1","dev":"b"},{"dst":"fe80:0::1","dev":"a"}])",
      "t" );
   EXPECT_EQ( errorText( twice.errors ), "t:1:58: neighbour 3: a second entry for fe80::1 on a\n" );
   EXPECT_THAT( twice.neighbors, SizeIs( 2 ) );
}

} // namespace
} // namespace VelTest
