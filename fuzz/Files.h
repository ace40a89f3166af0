// Files: a folder of this process, for what reads files by their names.

#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <unistd.h>

namespace Vel::Fuzz {

class Files {
 public:
   explicit Files( const std::string& name )
      : folder_( std::filesystem::temp_directory_path() /
                 ( "velmpls-fuzz-" + name + "-" + std::to_string( ::getpid() ) ) ) {
      std::filesystem::create_directory( folder_ );
   }
   Files( const Files& ) = delete;
   Files& operator=( const Files& ) = delete;
   ~Files() {
      std::error_code ignored;
      std::filesystem::remove_all( folder_, ignored );
   }

   std::string path( std::string_view name ) const { return ( folder_ / name ).string(); }
   /// Gives its path.
   std::string write( std::string_view name, std::string_view text ) const {
      std::ofstream( folder_ / name, std::ios::binary ).write( text.data(), std::ssize( text ) );
      return path( name );
   }
   std::string read( std::string_view name ) const {
      std::ifstream file( folder_ / name, std::ios::binary );
      return { std::istreambuf_iterator< char >( file ), {} };
   }

 private:
   std::filesystem::path folder_;
};

} // namespace Vel::Fuzz
