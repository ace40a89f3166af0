#include "agent/import/ImportError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vel::Agent {

std::string ImportError::text() const {
   std::string out = file;
   if ( line > 0 ) {
      out += ":" + std::to_string( line ) + ":" + std::to_string( column );
   }
   out += ": ";
   if ( label ) {
      out += "label " + std::to_string( *label ) + ": ";
   }
   if ( !where.empty() ) {
      out += where + ": ";
   }
   return out + reason;
}

ImportError ErrorList::made( std::optional< size_t > offset, std::string reason ) {
   ImportError error;
   error.file = file_;
   error.reason = std::move( reason );
   if ( !offset ) {
      return error;
   }
   const size_t to = std::min( *offset, text_.size() );
   if ( to < countedTo_ ) {
      countedTo_ = 0;
      lineStart_ = 0;
      line_ = 1;
   }
   for ( ; countedTo_ < to; ++countedTo_ ) {
      if ( text_[countedTo_] == '\n' ) {
         ++line_;
         lineStart_ = countedTo_ + 1;
      }
   }
   error.line = line_;
   error.column = static_cast< uint32_t >( to - lineStart_ + 1 );
   return error;
}

void ErrorList::add( std::optional< size_t > offset, std::optional< uint32_t > label,
                     std::string where, std::string reason ) {
   if ( listed_.size() >= maxListedErrors ) {
      ++unlisted_;
      return;
   }
   ImportError error = made( offset, std::move( reason ) );
   error.label = label;
   error.where = std::move( where );
   listed_.push_back( std::move( error ) );
}

void ErrorList::addFatal( size_t offset, std::string reason ) {
   listed_.push_back( made( offset, std::move( reason ) ) );
}

void ErrorList::addWhole( std::string reason ) {
   listed_.push_back( made( std::nullopt, std::move( reason ) ) );
}

std::vector< ImportError > ErrorList::take() {
   if ( unlisted_ > 0 ) {
      addWhole( "and " + std::to_string( std::exchange( unlisted_, 0 ) ) + " more" );
   }
   return std::exchange( listed_, {} );
}

namespace {

/// An open file, closed at the end of the scope unless it is standard input.
class OpenFile {
 public:
   explicit OpenFile( const std::string& path )
      : fd_( path == "-" ? STDIN_FILENO : ::open( path.c_str(), O_RDONLY | O_CLOEXEC ) ) {}
   ~OpenFile() {
      if ( fd_ > STDIN_FILENO ) {
         ::close( fd_ );
      }
   }
   OpenFile( const OpenFile& ) = delete;
   OpenFile& operator=( const OpenFile& ) = delete;
   int fd() const { return fd_; }

 private:
   int fd_;
};

std::string systemFault( const char* doing ) {
   return std::string( doing ) + ": " + std::strerror( errno );
}

const char* const tooLarge = "the file is larger than 1 GiB";

} // namespace

std::optional< std::string > readFile( const std::string& path, std::string& fault ) {
   const OpenFile file( path );
   struct stat info {};
   if ( file.fd() < 0 || ::fstat( file.fd(), &info ) != 0 ) {
      fault = systemFault( "cannot be opened" );
      return std::nullopt;
   }
   if ( S_ISDIR( info.st_mode ) ) {
      fault = "is a directory; the name of a file is needed";
      return std::nullopt;
   }
   const bool regular = S_ISREG( info.st_mode );
   if ( regular && info.st_size > static_cast< off_t >( maxFileBytes ) ) {
      fault = tooLarge;
      return std::nullopt;
   }
   std::string text;
   size_t used = 0;
   text.resize( regular ? static_cast< size_t >( info.st_size ) + 1 : 65536 );
   for ( ;; ) {
      if ( used == text.size() ) {
         text.resize( 2 * text.size() );
      }
      const ssize_t got = ::read( file.fd(), text.data() + used, text.size() - used );
      if ( got < 0 && errno == EINTR ) {
         continue;
      }
      if ( got < 0 ) {
         fault = systemFault( "cannot be read" );
         return std::nullopt;
      }
      if ( got == 0 ) {
         break;
      }
      used += static_cast< size_t >( got );
      if ( used > maxFileBytes ) {
         fault = tooLarge;
         return std::nullopt;
      }
   }
   text.resize( used );
   return text;
}

ImportError unreadable( const std::string& path, std::string fault ) {
   ImportError error;
   error.file = inputName( path );
   error.reason = std::move( fault );
   return error;
}

std::string inputName( const std::string& path ) {
   return path == "-" ? "standard input" : path;
}

} // namespace Vel::Agent
