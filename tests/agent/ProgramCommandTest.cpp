// The program as people run it: options, exit status, what goes to which stream.

#include "tests/agent/ProgramFixtures.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace VelTest {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class CommandTest : public testing::Test {
 protected:
   CommandTest() { std::filesystem::create_directory( folder_ ); }
   ~CommandTest() override { std::filesystem::remove_all( folder_ ); }

   struct Ran {
      int status = -1;
      std::string out;
      std::string err;
   };
   /// Runs the program with the arguments as a shell reads them.
   Ran run( const std::string& arguments, const std::string& input = "" ) const {
      const std::string command =
         joinText( "'", VELMPLS_PROGRAM, "' < ", file( "in", input ), " > ", folder_, "/out 2> ",
                   folder_, "/err ", arguments );
      const int status = std::system( command.c_str() ); // NOLINT: a shell is what people use
      return { WIFEXITED( status ) ? WEXITSTATUS( status ) : -1, contents( folder_ + "/out" ),
               contents( folder_ + "/err" ) };
   }
   std::string file( const std::string& name, const std::string& text ) const {
      std::ofstream( folder_ + "/" + name ) << text;
      return folder_ + "/" + name;
   }
   static std::string contents( const std::string& path ) {
      std::string fault;
      return readFile( path, fault ).value_or( fault );
   }

   const std::string folder_ =
      testing::TempDir() + "velmpls-command-test-" + std::to_string( getpid() );
   const std::string labels = " --lfib " + examplePath( "labels" );
   const std::string linkDown = " --lfib " + examplePath( "labels-link-down" );
   const std::string neighbors = " --neighbors " + examplePath( "neighbors" );
};

TEST_F( CommandTest, BadInputAndUsageEndWithTwoAndSayWhy ) {
   const std::string cut = file( "cut.json", R"({"16001":{"inLabel":16001,)" );
   const std::string bad = file( "bad.json", R"([{"dst":"16"},{"dst":"16001","dev":"a"}])" );
   const std::string huge( 2 * 9217, '0' );
   const std::string forward = "forward" + labels + " --frame ";
   const std::vector< std::pair< std::string, std::string > > cases{
      { "", "subcommand" },
      { "fly", "there is no command \"fly\"" },
      { "program", "--lfib" },
      { "audit", "--lfib" },
      { "program --lfib", "--lfib" },
      { "program --fast" + labels, "--fast" },
      { "program --lfib " + folder_ + "/none.json", "none.json: cannot be opened" },
      { "program --lfib " + folder_, "directory" },
      { "program --lfib " + cut, "cut off" },
      { "program --keep-going --lfib " + cut, "cut off" },
      { "program --lfib - --lfib -", "standard input: the file is empty" },
      { "program" + labels + " --lfib " + bad, "bad.json:1:2: " },
      { "program --lfib-format native" + labels, "velmplsLabelTable" },
      { "program --lfib-format csv" + labels, "\"csv\" is not a format" },
      { "program --format xml" + labels, "\"xml\" is not a form" },
      { "explain 16001 --format xml" + labels, "xml" },
      { "program --trace VelMplsSm" + labels, "--trace: " },
      { "program --trace VelMplsSn/3" + labels, "no handle \"VelMplsSn\"; there are" },
      { "program --neighbors " + cut + labels, "cut.json" },
      { "program --max-stale-share nan" + labels, "--max-stale-share" },
      { "forward" + labels, "--frame" },
      { forward + "0203 --frame 'g0'", "--frame 2: character 1 is not a hexadecimal digit" },
      { forward + "02:0", "--frame 1: an odd number of hexadecimal digits (3)" },
      { forward + "' : '", "--frame 1: no bytes" },
      { forward + huge, "longer than 9216 bytes" },
      { "explain" + labels, "LABEL" },
      { "explain none" + labels, "none" },
      { "explain 16001/1048576" + labels, "1048576" },
      { "audit --limit -1" + labels, "--limit" },
      { "progam" + labels, "did you mean program?" },
      { "program --route-capacity -1" + labels,
        "\"-1\" is not a whole number from 0 to 999999999" },
      { "program --fec-capacity 0x2" + labels, "\"0x2\"" },
      { "program --fec-capacity 99999999999999999999" + labels, "\"99999999999999999999\"" },
      { "program --neighbors ''" + labels, "--neighbors: it is empty" },
      { "program --fault ''" + labels, "--fault: it is empty" },
      { "program --hardware-state ''" + labels, "--hardware-state: it is empty" },
      { "program --route-capacity 010" + labels, "\"010\"" },
      { "program --fault 'forget label 77'" + labels,
        "no table has a route of label 77 to forward" },
      { "impact" + labels, "" },
      { "impact --next-hop 10.3.6" + labels, "10.3.6" },
      { "impact --next-hop 10.3.6.7" + labels, "10.3.6.7" },
      { "impact --next-hop 10.3.6.6 --interface to-seattle" + labels, "10.3.6.6" },
      { "impact --interface eth9" + labels, "eth9" },
      { "program --label 7" + labels, "the table has no route of label 7" },
      { "program --state lost" + labels, "\"lost\" is no state" },
      { "explain 16001 --hardware-state gone.json" + labels, "gone.json: there is no state" },
      { "simulate --events 0x2", "\"0x2\" is not a whole number" },
      { "diff " + cut + " " + bad, "cut.json" } };
   for ( const auto& [arguments, complaint] : cases ) {
      const Ran ran = run( arguments );
      EXPECT_EQ( ran.status, 2 ) << arguments;
      EXPECT_THAT( ran.out, IsEmpty() ) << arguments;
      EXPECT_THAT( ran.err, HasSubstr( complaint ) ) << arguments;
   }
}

TEST_F( CommandTest, StatusSaysWhetherAllIsAsItShouldBe ) {
   const std::string all = labels + neighbors;
   const std::vector< std::pair< std::string, int > > cases{
      { "program" + all + " > /dev/full", 2 },
      { "explain 16001" + all, 0 },
      { "explain 16001 --fault 'refuse label 16002'" + all, 0 },
      { "explain 16002 --fault 'refuse label 16002' --format json" + all, 3 },
      { "explain 15" + all, 3 },
      { "explain 16001" + all + " > /dev/full", 2 },
      { "audit" + all, 0 },
      { "audit" + labels, 0 },
      { "audit --fault 'refuse label 16002' --limit 0 --format json" + all, 3 },
      { "audit --without-fecs" + all, 0 },
      { "audit --without-fecs --fault 'forget label 16002'" + all, 3 },
      { "audit --route-capacity 9" + all, 3 },
      { "audit" + all + " > /dev/full", 2 },
      { "impact --next-hop 10.3.6.6 --interface to-kansas-city" + all, 0 },
      { "impact --interface to-seattle --format json" + labels, 0 } };
   for ( const auto& [arguments, status] : cases ) {
      EXPECT_EQ( run( arguments ).status, status ) << arguments;
   }
}

TEST_F( CommandTest, ProgramPrintsWhatIsAskedFor ) {
   const Ran whole = run( "program" + labels + linkDown + neighbors );
   EXPECT_EQ( whole.status, 0 );
   EXPECT_THAT( whole.err, IsEmpty() );
   EXPECT_THAT( whole.out, EndsWith( "10 routes: 10 programmed, 0 partially programmed, "
                                     "0 unprogrammed, 0 ignored; 10 L3 adjacencies, "
                                     "10 L2 adjacencies\n" ) );
   const Ran part = run( "program --quiet" + labels );
   EXPECT_EQ( part.status, 3 );
   EXPECT_THAT( part.out + part.err, IsEmpty() );
   const Ran piped = run( "program --format json --lfib -" + neighbors,
                          contents( examplePath( "labels-iproute2" ) ) );
   EXPECT_EQ( piped.status, 0 );
   EXPECT_THAT( piped.out, StartsWith( R"({"summary":{"routes":10,"programmed":10,)" ) );
   EXPECT_THAT( run( "program --quiet --trace 'VelMplsSm/7'" + labels ).err,
                HasSubstr( "VelMplsSm/7 process routeKey 16001" ) );
   EXPECT_THAT( run( "--version" ).out, StartsWith( "velmpls " ) );
   EXPECT_THAT( run( "program --help" ).out, HasSubstr( "Example:\n" ) );
}

TEST_F( CommandTest, ShowsAndComparesWhatIsAskedFor ) {
   const std::string both = labels + neighbors;
   const std::string next = " --next " + examplePath( "labels-link-down" );
   const std::string off = file( "off.json", R"([{"dst":"16001","to":"16","dev":"x",)"
                                             R"("via":{"family":"inet","host":"10.9.9.9"}}])" );
   struct Case {
      std::string arguments;
      int status;
      std::string has;
      std::string lacks;
   };
   const std::string quietly = " --fault 'refuse label 16002'";
   for ( const Case& one : std::vector< Case >{
            { "program --label 16001" + both, 0, "\n16001 ", "\n16002 " },
            { "program --state unprogrammed" + both + quietly, 3, "\n16002 ", "\n16001 " },
            { "program --format json --label 16001 --label 16004" + both, 0, R"({"label":16004,)",
              R"({"label":16002,)" },
            { "diff " + examplePath( "labels" ) + " " + examplePath( "labels-native" ), 0,
              "0 differences", "+ " },
            { "diff " + examplePath( "labels" ) + " " + off, 3,
              "+ 16001  swap 16 to 10.9.9.9 on x\n- 16002", "+ 16002" },
            { "plan" + both + next, 0, "0 added, 0 removed, 7 changed, 3 as they are", "lost" },
            { "plan --format json" + both + next, 0, R"("changed":[16001,16002,)", "null" },
            { "plan --next " + off + both, 3, "16001  would be unprogrammed: next hop 10.9.9.9",
              "16001  changed" } } ) {
      const Ran ran = run( one.arguments );
      EXPECT_EQ( ran.status, one.status ) << one.arguments;
      EXPECT_THAT( ran.out, HasSubstr( one.has ) ) << one.arguments;
      EXPECT_THAT( ran.out, testing::Not( HasSubstr( one.lacks ) ) ) << one.arguments;
   }
}

TEST_F( CommandTest, KeepGoingTakesWhatIsSound ) {
   const std::string labelFile =
      file( "t.json", R"([{"dst":"100","dev":"a"},{"dst":"200","to":"16","dev":"a",)"
                      R"("via":{"family":"inet","host":"10.0.0.1"}},{"dst":"4"}])" );
   const std::string neighborFile = file(
      "n.json", R"([{"dst":"10.0.0.1","dev":"a","lladdr":"02:00:00:00:00:01"},{"dst":"x"}])" );
   const std::string table = "program --lfib " + labelFile + " --neighbors " + neighborFile;
   const Ran strict = run( table );
   EXPECT_EQ( strict.status, 2 );
   EXPECT_THAT( strict.out, IsEmpty() );
   EXPECT_THAT( strict.err, HasSubstr( "nothing was applied" ) );
   const Ran lenient = run( table + " --keep-going" );
   EXPECT_EQ( lenient.status, 3 );
   EXPECT_THAT( lenient.out, HasSubstr( "\n200    programmed" ) );
   EXPECT_THAT( lenient.err, HasSubstr( "t.json:1:" ) );
   EXPECT_THAT( lenient.err, HasSubstr( "n.json:1:" ) );
   EXPECT_THAT( lenient.err, EndsWith( "the above was left out\n" ) );
}

TEST_F( CommandTest, FramesLeaveTheOtherWayWhenTheLinkIsDown ) {
   const std::string frame = " --frame '020000000001 020000000002 88:47 03E84140 "
                             "450000140000000040fd61e80a0001020a000304'";
   const std::string rest = "020000000001884703e8413f450000140000000040fd61e80a0001020a000304\n";
   const std::string east = "to-kansas-city 02000a030606" + rest;
   const std::string west = "to-sunnyvale 02000a030a0a" + rest;
   const std::string tooShort = "drop: frame too short for an Ethernet header\n";
   const std::string plain = "forward" + neighbors + frame + labels;
   const std::string guarded =
      "forward" + neighbors + frame + " --lfib " + examplePath( "labels-backup" );
   const std::string linkFails = " --fault 'link-down to-kansas-city from 5' --for ";
   EXPECT_EQ( run( plain + " --frame 0102" ).out, east + tooShort );
   EXPECT_EQ( run( plain + linkDown ).out, west ); // by the next table
   EXPECT_EQ( run( guarded + linkFails + "4" ).out, east );
   EXPECT_EQ( run( guarded + linkFails + "6" ).out, west ); // by its backup
   EXPECT_THAT( run( guarded + linkFails + "6 --without-fecs" ).out, StartsWith( "drop: " ) );
   const Ran full = run( "program --fec-capacity 3" + labels + neighbors );
   EXPECT_EQ( full.status, 3 );
   EXPECT_THAT( full.out, HasSubstr( "hardware is full: FECs" ) );
   EXPECT_THAT( full.out, HasSubstr( "10 routes: 3 programmed" ) );
}

TEST_F( CommandTest, HardwareOutlivesTheProgram ) {
   const auto table = [&]( const std::string& name, const std::map< U32, U32 >& swaps ) {
      std::vector< std::string > routes;
      for ( const auto& [label, out] : swaps ) {
         routes.push_back( routeOf( label, { swapVia( out, "10.0.0.1", "eth1" ) } ) );
      }
      return " --lfib " + file( name, tableText( routes ) );
   };
   const std::string common =
      " --hardware-state " + folder_ + "/hw.json --format json --neighbors " +
      file( "neigh", R"([{"dst":"10.0.0.1","dev":"eth1","lladdr":"02:00:00:00:00:01"}])" );
   const std::string before = table( "a", { { 16, 101 }, { 17, 102 }, { 18, 103 } } ) + common;
   const std::string after = table( "b", { { 16, 101 }, { 17, 109 }, { 19, 104 } } ) + common;
   const auto counts = []( int adopted, int changed, int added, int stale ) {
      return HasSubstr( joinText( "\"adopted\":", adopted, ",\"changed\":", changed,
                                  ",\"added\":", added, ",\"stale\":", stale ) );
   };
   EXPECT_THAT( run( "program" + before ).out, counts( 0, 0, 3, 0 ) );
   EXPECT_THAT( run( "program" + before ).out, counts( 3, 0, 0, 0 ) );
   EXPECT_THAT( run( "program --preview-sweep" + after ).out, HasSubstr( "\"held\":[18]" ) );
   const Ran held = run( "program --max-stale-share 0.1" + after );
   EXPECT_EQ( held.status, 3 );
   EXPECT_THAT( held.out, counts( 1, 1, 1, 0 ) ); // the preview has changed nothing
   EXPECT_THAT( held.err, HasSubstr( "1 of 3 routes" ) );
   const Ran swept = run( "program" + after );
   EXPECT_EQ( swept.status, 0 );
   EXPECT_THAT( swept.out, counts( 3, 0, 0, 1 ) );

   std::filesystem::rename( folder_ + "/hw.json", folder_ + "/elsewhere.json" );
   std::filesystem::create_symlink( folder_ + "/elsewhere.json", folder_ + "/hw.json" );
   EXPECT_THAT( run( "program" + before ).out, counts( 1, 1, 1, 1 ) );
   EXPECT_TRUE( std::filesystem::is_symlink( folder_ + "/hw.json" ) );

   const std::string hardware = contents( folder_ + "/hw.json" );
   EXPECT_EQ( run( "explain 19" + after ).status, 0 ); // on that hardware, and leaves it alone
   EXPECT_EQ( contents( folder_ + "/hw.json" ), hardware );
   EXPECT_THAT( run( "program --without-fecs" + after ).err, HasSubstr( "without FECs" ) );
   const int lock = ::open( ( folder_ + "/elsewhere.json.lock" ).c_str(), O_RDWR );
   ASSERT_EQ( ::flock( lock, LOCK_EX | LOCK_NB ), 0 );
   const Ran second = run( "program" + after );
   EXPECT_EQ( second.status, 2 );
   EXPECT_EQ( second.out, "" );
   EXPECT_THAT( second.err, HasSubstr( "hw.json: another run has this hardware" ) );
   ::close( lock );
   file( "hw.json", std::string( 100'000, '[' ) );
   EXPECT_THAT( run( "program" + after ).err, HasSubstr( "more than 64 levels" ) );
   for ( const std::string text : { "{", "[]", R"({"velmplsHardwareState":2})",
                                    R"({"velmplsHardwareState":1,"nextHwId":2,"mplsRouting":[0],)"
                                    R"("fecs":[],"routes":[{"vrf":0,"stack":[16],"hwId":1,)"
                                    R"("action":"none","payload":null,"ttlMode":null}]})" } ) {
      file( "hw.json", text );
      const Ran bad = run( "program" + after );
      EXPECT_EQ( bad.status, 2 ) << text;
      EXPECT_THAT( bad.err, HasSubstr( "hw.json: not a state of the hardware" ) ) << text;
   }
}

} // namespace
} // namespace VelTest
