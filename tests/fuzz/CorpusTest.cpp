// The kept inputs of every fuzz harness: what has gone wrong before, and what reaches far.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/Fuzz.h"
#include "tests/AssertionsThrow.h"

namespace Vel::Fuzz {
namespace {

using CorpusTest = testing::TestWithParam< Harness >;

TEST_P( CorpusTest, NothingGoesWrong ) {
   const VelTest::AssertionsThrow assertionsThrow;
   std::vector< std::filesystem::path > files;
   for ( const auto& entry : std::filesystem::directory_iterator(
            std::filesystem::path( VELMPLS_SOURCE_DIR ) / "fuzz" / "corpus" / GetParam().name ) ) {
      files.push_back( entry.path() );
   }
   std::ranges::sort( files );
   EXPECT_FALSE( files.empty() );
   for ( const std::filesystem::path& path : files ) {
      std::ifstream file( path, std::ios::binary );
      const std::vector< char > bytes{ std::istreambuf_iterator< char >( file ), {} };
      EXPECT_NO_THROW(
         GetParam().run( { reinterpret_cast< const uint8_t* >( bytes.data() ), bytes.size() } ) )
         << path;
   }
}

INSTANTIATE_TEST_SUITE_P( Fuzz, CorpusTest, testing::ValuesIn( harnesses ),
                          []( const auto& harness ) { return std::string( harness.param.name ); } );

} // namespace
} // namespace Vel::Fuzz
