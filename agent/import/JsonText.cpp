#include "agent/import/JsonText.h"

#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

#include "agent/import/ImportError.h"

namespace Vel::Agent {

namespace {

using Json = nlohmann::json;

/// Walks the text and leaves behind how far the parser has read, for the line of a complaint.
class TrackedInput {
 public:
   using iterator_category = std::input_iterator_tag;
   using value_type = char;
   using difference_type = std::ptrdiff_t;
   using pointer = const char*;
   using reference = const char&;

   TrackedInput( const char* at, const char** furthest ) : at_( at ), furthest_( furthest ) {}
   reference operator*() const { return *at_; }
   TrackedInput& operator++() {
      *furthest_ = ++at_;
      return *this;
   }
   bool operator==( const TrackedInput& other ) const { return at_ == other.at_; }
   bool operator!=( const TrackedInput& other ) const { return at_ != other.at_; }

 private:
   const char* at_;
   const char** furthest_;
};

/// The parser's message without its name, its code and the position, which the complaint has.
std::string parserWords( std::string_view what ) {
   if ( const size_t bracket = what.find( "] " ); bracket != what.npos ) {
      what.remove_prefix( bracket + 2 );
   }
   if ( what.starts_with( "parse error" ) ) {
      if ( const size_t colon = what.find( ": " ); colon != what.npos ) {
         what.remove_prefix( colon + 2 );
      }
   }
   const std::string words = inQuotes( what );
   return words.substr( 1, words.size() - 2 );
}

} // namespace

/// Takes the parser's events and builds the pieces from them.
class JsonCutter {
 public:
   JsonCutter( std::string_view text, JsonCut cut, JsonPieces& pieces, ErrorList& errors )
      : text_( text ),
        furthest_( text.data() ),
        whole_( cut == JsonCut::whole ),
        pieces_( pieces ),
        errors_( errors ) {}

   bool read() {
      Json::sax_parse( TrackedInput( text_.data(), &furthest_ ),
                       TrackedInput( text_.data() + text_.size(), &furthest_ ), this );
      return !failed_;
   }

   // The parser's events. False stops it.
   bool null() { return scalar( JsonKind::null ); }
   bool boolean( bool value ) { return scalar( JsonKind::boolean, {}, value ? 1 : 0 ); }
   bool number_unsigned( uint64_t value ) { // NOLINT(readability-identifier-naming)
      return scalar( JsonKind::natural, {}, value );
   }
   bool number_integer( int64_t value ) { // NOLINT(readability-identifier-naming)
      return scalar( JsonKind::number, std::to_string( value ) );
   }
   bool number_float( double, const std::string& text ) { // NOLINT(readability-identifier-naming)
      return scalar( JsonKind::number, text );
   }
   bool string( const std::string& text ) { return scalar( JsonKind::text, text ); }
   bool binary( const Json::binary_t& ) { return false; } // not in JSON text
   bool start_object( size_t ) {                          // NOLINT(readability-identifier-naming)
      return open( JsonKind::object );
   }
   bool start_array( size_t ) { // NOLINT(readability-identifier-naming)
      return open( JsonKind::list );
   }
   bool end_object() { return close(); } // NOLINT(readability-identifier-naming)
   bool end_array() { return close(); }  // NOLINT(readability-identifier-naming)
   bool key( const std::string& name );
   bool parse_error( size_t position, const std::string&, // NOLINT(readability-identifier-naming)
                     const Json::exception& error );

 private:
   struct OpenContainer {
      uint32_t node;
      uint32_t fields;
   };

   size_t offset() const {
      const auto read = static_cast< size_t >( furthest_ - text_.data() );
      return read > 0 ? read - 1 : 0;
   }
   bool building() const { return pieceDepth_.has_value(); }
   bool scalar( JsonKind kind, std::string_view text = {}, uint64_t natural = 0 );
   bool open( JsonKind kind );
   bool close();
   void beginPiece( size_t offset );
   bool endPiece();
   void addNode( JsonKind kind, std::string_view text = {}, uint64_t natural = 0 );
   JsonTree::Span store( std::string_view text );

   std::string_view text_;
   const char* furthest_;
   bool whole_;
   JsonPieces& pieces_;
   ErrorList& errors_;
   bool failed_ = false;

   size_t depth_ = 0; // containers open now
   JsonKind root_ = JsonKind::null;
   std::string listKey_; // of the list being handed over by elements
   bool inList_ = false;
   size_t members_ = 0;    // members of the outermost value begun so far
   size_t elements_ = 0;   // elements of that list begun so far
   std::string memberKey_; // of the member of the outermost object read last

   std::optional< size_t > pieceDepth_; // depth outside the piece that is being built
   size_t pieceOffset_ = 0;
   std::string fault_;
   JsonTree tree_;
   JsonTree::Span pendingKey_;
   std::vector< OpenContainer > open_;
};

bool JsonCutter::key( const std::string& name ) {
   if ( !building() ) {
      memberKey_ = name;
      return true;
   }
   if ( !fault_.empty() ) {
      return true;
   }
   OpenContainer& object = open_.back();
   if ( ++object.fields > maxObjectFields ) {
      fault_ = "an object of more than " + std::to_string( maxObjectFields ) + " fields";
      return true;
   }
   for ( JsonValue::Iterator it( tree_, object.node + 1 ),
         end( tree_, static_cast< uint32_t >( tree_.nodes_.size() ) );
         it != end; ++it ) {
      if ( ( *it ).key() == name ) {
         fault_ = "the field " + inQuotes( name ) + " appears twice";
         return true;
      }
   }
   pendingKey_ = store( name );
   return true;
}

bool JsonCutter::parse_error( size_t position, const std::string&, const Json::exception& error ) {
   failed_ = true;
   if ( position > text_.size() ) { // the parser has counted the end of the text as read
      errors_.addFatal( text_.size(), "the file ends in the middle of its JSON; it looks cut off" );
   } else {
      errors_.addFatal( position > 0 ? position - 1 : 0,
                        "this is not JSON: " + parserWords( error.what() ) );
   }
   return false;
}

bool JsonCutter::scalar( JsonKind kind, std::string_view text, uint64_t natural ) {
   if ( depth_ == 0 && !pieces_.opened( kind ) ) {
      return false;
   }
   if ( building() ) {
      addNode( kind, text, natural );
      return true;
   }
   // Where a number ends shows only when the character behind it has been read.
   const bool isNumber = kind == JsonKind::natural || kind == JsonKind::number;
   beginPiece( isNumber && offset() > 0 ? offset() - 1 : offset() );
   addNode( kind, text, natural );
   return endPiece();
}

bool JsonCutter::open( JsonKind kind ) {
   if ( depth_ == maxJsonDepth ) {
      failed_ = true;
      errors_.addFatal( offset(),
                        "nested deeper than " + std::to_string( maxJsonDepth ) + " levels" );
      return false;
   }
   if ( depth_ == 0 ) {
      root_ = kind;
      if ( !pieces_.opened( kind ) ) {
         return false;
      }
   }
   const bool outermost = depth_ == 0 && !whole_;
   const bool memberList =
      depth_ == 1 && !building() && root_ == JsonKind::object && kind == JsonKind::list;
   if ( memberList && pieces_.opensList( memberKey_ ) ) {
      inList_ = true;
      listKey_ = memberKey_;
      elements_ = 0;
      ++members_;
   } else if ( !outermost ) {
      if ( !building() ) {
         beginPiece( offset() );
      }
      const auto at = static_cast< uint32_t >( tree_.nodes_.size() );
      addNode( kind );
      open_.push_back( { at, 0 } );
   }
   ++depth_;
   return true;
}

bool JsonCutter::close() {
   --depth_;
   if ( !building() ) {
      inList_ = false;
      return true;
   }
   const OpenContainer closed = open_.back();
   open_.pop_back();
   if ( fault_.empty() ) {
      tree_.nodes_[closed.node].end = static_cast< uint32_t >( tree_.nodes_.size() );
   }
   return depth_ != *pieceDepth_ || endPiece();
}

void JsonCutter::beginPiece( size_t offset ) {
   pieceDepth_ = depth_;
   pieceOffset_ = offset;
   fault_.clear();
   tree_.nodes_.clear();
   tree_.text_.clear();
   pendingKey_ = {};
}

bool JsonCutter::endPiece() {
   pieceDepth_.reset();
   if ( !fault_.empty() ) {
      tree_.nodes_.assign( 1, JsonTree::Node{} );
   }
   const bool inObject = root_ == JsonKind::object && !whole_ && !inList_;
   return pieces_.piece( { .list = inList_ ? std::string_view( listKey_ ) : std::string_view(),
                           .key = inObject ? std::string_view( memberKey_ ) : std::string_view(),
                           .index = inList_ ? elements_++ : members_++,
                           .offset = pieceOffset_,
                           .fault = fault_,
                           .value = tree_.root() } );
}

void JsonCutter::addNode( JsonKind kind, std::string_view text, uint64_t natural ) {
   if ( fault_.empty() && tree_.nodes_.size() == maxPieceValues ) {
      fault_ = "more than " + std::to_string( maxPieceValues ) + " values";
   }
   if ( fault_.empty() && tree_.text_.size() + text.size() > maxPieceTextBytes ) {
      fault_ = "more than " + std::to_string( maxPieceTextBytes ) + " bytes of text";
   }
   if ( !fault_.empty() ) {
      return;
   }
   JsonTree::Node node;
   node.kind = kind;
   node.natural = natural;
   node.key = std::exchange( pendingKey_, {} );
   node.text = store( text );
   node.end = static_cast< uint32_t >( tree_.nodes_.size() ) + 1;
   tree_.nodes_.push_back( node );
}

JsonTree::Span JsonCutter::store( std::string_view text ) {
   const JsonTree::Span span{ static_cast< uint32_t >( tree_.text_.size() ),
                              static_cast< uint32_t >( text.size() ) };
   tree_.text_ += text;
   return span;
}

bool readJson( std::string_view text, JsonCut cut, JsonPieces& pieces, ErrorList& errors ) {
   return JsonCutter( text, cut, pieces, errors ).read();
}

std::optional< JsonValue > JsonValue::field( std::string_view key ) const {
   if ( is( JsonKind::object ) ) {
      for ( const JsonValue value : *this ) {
         if ( value.key() == key ) {
            return value;
         }
      }
   }
   return std::nullopt;
}

std::string JsonValue::described() const {
   switch ( kind() ) {
   case JsonKind::null:
      return "null";
   case JsonKind::boolean:
      return natural() != 0 ? "true" : "false";
   case JsonKind::natural:
      return std::to_string( natural() );
   case JsonKind::number: {
      const std::string shown = inQuotes( text() );
      return shown.substr( 1, shown.size() - 2 );
   }
   case JsonKind::text:
      return inQuotes( text() );
   case JsonKind::list:
      return "a list";
   case JsonKind::object:
      return "an object";
   }
   return {};
}

std::string inQuotes( std::string_view text ) {
   constexpr size_t maxShown = 120;
   std::string out = "\"";
   for ( const char c : text.substr( 0, maxShown ) ) {
      const bool shown = c >= ' ' && c <= '~'; // messages go to terminals and logs as they are
      out += shown ? c : '?';
   }
   out += text.size() > maxShown ? "...\"" : "\"";
   return out;
}

} // namespace Vel::Agent
