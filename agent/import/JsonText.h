// Reads a JSON document (RFC 8259) piece by piece.
//
// A label table of a whole label space is a hundred megabytes of text and a list of a million
// small records. Holding it as one tree would cost several times the text, so the document is cut:
// the reader hands over one piece (a member of the outermost object, an element of a list) at a
// time, in one flat tree whose memory is used again for the next piece. What a plain JSON parser
// leaves out is checked here: a field that appears twice, depth, and size.
//
// Cost: one pass over the text, no allocation per value once the tree has grown to the largest
// piece.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vel::Agent {

class ErrorList;

/// A document nested deeper is not read on.
inline constexpr size_t maxJsonDepth = 64;
/// Limits on one piece: values in it, bytes of text in it, fields of one object in it.
inline constexpr size_t maxPieceValues = 65536;
inline constexpr size_t maxPieceTextBytes = size_t{ 1 } << 20;
inline constexpr size_t maxObjectFields = 64;

enum class JsonKind : uint8_t {
   null,
   boolean,
   natural, ///< a whole number that is not negative, up to 2^64 - 1
   number,  ///< any other number; kept as text
   text,
   list,
   object
};

class JsonValue;

/// One piece of a document: its values in the order of the text, a container before its contents.
class JsonTree {
 public:
   JsonValue root() const;

 private:
   friend class JsonValue;
   friend class JsonCutter;

   struct Span {
      uint32_t at = 0;
      uint32_t size = 0;
   };
   struct Node {
      JsonKind kind = JsonKind::null;
      uint32_t end = 1; // index behind the last value inside
      Span key;
      Span text;
      uint64_t natural = 0; // a boolean is 0 or 1
   };
   std::string_view view( Span span ) const {
      return std::string_view( text_ ).substr( span.at, span.size );
   }

   std::vector< Node > nodes_;
   std::string text_;
};

/// A value in a piece. Valid only while its piece is being handled.
class JsonValue {
 public:
   class Iterator {
    public:
      Iterator( const JsonTree& tree, uint32_t at ) : tree_( &tree ), at_( at ) {}
      JsonValue operator*() const { return { *tree_, at_ }; }
      Iterator& operator++() {
         at_ = tree_->nodes_[at_].end;
         return *this;
      }
      bool operator==( const Iterator& ) const = default;

    private:
      const JsonTree* tree_;
      uint32_t at_;
   };

   JsonValue( const JsonTree& tree, uint32_t at ) : tree_( &tree ), at_( at ) {}

   JsonKind kind() const { return node().kind; }
   bool is( JsonKind kind ) const { return node().kind == kind; }
   /// Name of the field that holds it; empty for an element of a list.
   std::string_view key() const { return tree_->view( node().key ); }
   std::string_view text() const { return tree_->view( node().text ); }
   uint64_t natural() const { return node().natural; }

   /// What a list or an object holds, in the order of the text.
   Iterator begin() const { return { *tree_, at_ + 1 }; }
   Iterator end() const { return { *tree_, node().end }; }
   bool hasContents() const { return node().end > at_ + 1; }
   std::optional< JsonValue > field( std::string_view key ) const;

   /// For messages: the value itself, or "a list", "an object".
   std::string described() const;

 private:
   const JsonTree::Node& node() const { return tree_->nodes_[at_]; }

   const JsonTree* tree_;
   uint32_t at_;
};

inline JsonValue JsonTree::root() const {
   return { *this, 0 };
}

/// One piece as it is handed over.
struct JsonPiece {
   std::string_view
      list;              ///< field of the outermost object whose list it is an element of, or empty
   std::string_view key; ///< field of the outermost object that it is the value of, or empty
   size_t index = 0;     ///< position in its list or object, from 0
   size_t offset = 0;    ///< where an object or a list begins in the text, and other values end
   std::string_view fault; ///< not empty: the piece breaks a rule, and its value is null
   JsonValue value;
};

/// Takes the pieces of a document.
class JsonPieces {
 public:
   virtual ~JsonPieces() = default;
   /// The outermost value begins. False stops the reading, as in the next two.
   virtual bool opened( JsonKind kind ) = 0;
   /// The field `key` of the outermost object holds a list: true has its elements handed over one
   /// by one, false hands over the list as one piece.
   virtual bool opensList( std::string_view key ) = 0;
   virtual bool piece( const JsonPiece& piece ) = 0;
};

/// What the pieces are: the members of the outermost list or object, or the whole document.
enum class JsonCut : uint8_t { members, whole };

/// Reads `text` to its end, or until `pieces` stops it. What is wrong with the text as JSON is
/// added to `errors`; the answer is false then.
bool readJson( std::string_view text, JsonCut cut, JsonPieces& pieces, ErrorList& errors );

/// Text from outside as it may stand in a message: in quotes, printable ASCII only, and not longer
/// than a line.
std::string inQuotes( std::string_view text );

} // namespace Vel::Agent
