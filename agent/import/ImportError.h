// What an importer says about input that it cannot take, and how that input comes in from a file.
//
// A table from a live router is read by a person when it does not load, so every complaint names
// the file, the place in it, the label where there is one, and the reason. Complaints are
// collected, not thrown: one run lists all that is wrong with a file, up to a limit.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vel::Agent {

/// Larger files are refused unread.
inline constexpr size_t maxFileBytes = size_t{ 1 } << 30;
/// Complaints listed for one file. The rest are counted.
inline constexpr size_t maxListedErrors = 100;

/// One complaint about one file.
struct ImportError {
   std::string file;
   uint32_t line = 0;               ///< from 1; 0 when it is about the file as a whole
   uint32_t column = 0;             ///< from 1, in bytes
   std::optional< uint32_t > label; ///< top label of the route, where it could be read
   std::string where;               ///< the place inside the record, such as "via 2"; may be empty
   std::string reason;

   /// "table.json:12:3: label 16040: via 2: ...", without the parts that are not known.
   std::string text() const;
};

/// Collects the complaints about one text, and finds the line and column of each.
class ErrorList {
 public:
   /// `text` must outlive the list.
   ErrorList( std::string file, std::string_view text )
      : file_( std::move( file ) ), text_( text ) {}

   /// A complaint about the record that begins at `offset` of the text, where there is one place to
   /// name. Counted only, once the list is full.
   void add( std::optional< size_t > offset, std::optional< uint32_t > label, std::string where,
             std::string reason );
   /// A complaint after which the rest of the text is not read. Listed even when the list is full.
   void addFatal( size_t offset, std::string reason );
   /// A complaint about the text as a whole. Listed even when the list is full.
   void addWhole( std::string reason );

   bool empty() const { return listed_.empty(); }
   /// The complaints in the order in which they came. When some were only counted, the last line
   /// says how many.
   std::vector< ImportError > take();

 private:
   ImportError made( std::optional< size_t > offset, std::string reason );

   std::string file_;
   std::string_view text_;
   std::vector< ImportError > listed_;
   size_t unlisted_ = 0;
   // Offsets come in ascending order, mostly: lines are counted on from the last place asked for.
   size_t countedTo_ = 0;
   size_t lineStart_ = 0;
   uint32_t line_ = 1;
};

/// The whole of a file, or of standard input when the path is "-". Nothing when it cannot be read
/// (absent, no permission, a directory, more than `maxFileBytes`); `fault` then says why.
std::optional< std::string > readFile( const std::string& path, std::string& fault );
/// The complaint about input that cannot be read.
ImportError unreadable( const std::string& path, std::string fault );
/// What messages call that input: the path, or "standard input".
std::string inputName( const std::string& path );

} // namespace Vel::Agent
