#include "platform/entity/Introspection.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <vector>

#include "platform/entity/Entity.h"

namespace Vel {

namespace {

std::string valueText( const AttributeValue& value ) {
   return std::visit( []( const auto& held ) { return textOf( held ); }, value );
}

// --- Text

/// The longest name among an entity's attributes and collections.
class NameWidth : public AttributeVisitor {
 public:
   void attribute( std::string_view name, const AttributeValue& ) override { see( name ); }
   bool collectionBegin( std::string_view name, size_t ) override {
      see( name );
      return false;
   }
   void element( const std::string&, const AttributeValue& ) override {}
   void member( const AttributeValue& ) override {}
   void child( const std::string&, const Entity& ) override {}
   size_t width() const { return width_; }

 private:
   void see( std::string_view name ) { width_ = std::max( width_, name.size() ); }

   size_t width_ = 0;
};

/// Prints the attributes of one entity; those of its children through a printer of their own.
class TextPrinter : public AttributeVisitor {
 public:
   TextPrinter( std::string& out, const PrintLimits& limits, size_t indent, size_t depth )
      : out_( out ), limits_( limits ), indent_( indent ), depth_( depth ) {}

   void print( const Entity& entity ) {
      NameWidth names;
      entity.visit( names );
      width_ = names.width();
      entity.visit( *this );
   }

   void attribute( std::string_view name, const AttributeValue& value ) override {
      line( indent_, name, width_, valueText( value ) );
   }
   bool collectionBegin( std::string_view name, size_t size ) override {
      line( indent_, name, width_, joinText( "(", size, ")" ) );
      size_ = size;
      shown_ = 0;
      return size != 0;
   }
   bool wantsMore() const override { return shown_ < limits_.elementsPerCollection; }
   void element( const std::string& key, const AttributeValue& value ) override {
      ++shown_;
      rows_.emplace_back( key, valueText( value ) );
   }
   void member( const AttributeValue& key ) override {
      ++shown_;
      rows_.emplace_back( valueText( key ), std::string() );
   }
   void child( const std::string& key, const Entity& entity ) override {
      ++shown_;
      if ( depth_ == limits_.depth ) {
         line( indent_ + 1, key, key.size(), "..." );
         return;
      }
      line( indent_ + 1, key, key.size(), "" );
      TextPrinter( out_, limits_, indent_ + 2, depth_ + 1 ).print( entity );
   }
   void collectionEnd() override {
      size_t keyWidth = 0;
      for ( const auto& [key, value] : rows_ ) {
         keyWidth = std::max( keyWidth, key.size() );
      }
      for ( const auto& [key, value] : rows_ ) {
         line( indent_ + 1, key, keyWidth, value );
      }
      rows_.clear();
      if ( shown_ < size_ ) {
         line( indent_ + 1, joinText( "and ", size_ - shown_, " more" ), 0, "" );
      }
   }

 private:
   void line( size_t indent, std::string_view name, size_t width, std::string_view value ) {
      constexpr size_t step = 3;
      out_.append( indent * step, ' ' );
      out_ += name;
      if ( !value.empty() ) {
         out_.append( width - name.size() + 2, ' ' );
         out_ += value;
      }
      out_ += '\n';
   }

   std::string& out_;
   const PrintLimits& limits_;
   const size_t indent_;
   const size_t depth_;
   size_t width_ = 0;
   size_t size_ = 0;
   size_t shown_ = 0;
   std::vector< std::pair< std::string, std::string > > rows_; // buffered, to be aligned
};

// --- JSON (RFC 8259)

/// The length of the UTF-8 sequence (RFC 3629 section 4) at the beginning of the text; 0 when there
/// is none.
size_t utf8Length( std::string_view text ) {
   const auto byte = [&]( size_t i ) {
      return i < text.size() ? static_cast< unsigned char >( text[i] ) : 0U;
   };
   const auto within = []( unsigned value, unsigned low, unsigned high ) {
      return value >= low && value <= high;
   };
   const auto tail = [&]( size_t i ) { return within( byte( i ), 0x80, 0xBF ); };
   const unsigned first = byte( 0 );
   if ( first < 0x80 ) {
      return 1;
   }
   if ( within( first, 0xC2, 0xDF ) ) {
      return tail( 1 ) ? 2 : 0;
   }
   if ( within( first, 0xE0, 0xEF ) ) {
      const unsigned low = first == 0xE0 ? 0xA0 : 0x80;
      const unsigned high = first == 0xED ? 0x9F : 0xBF;
      return within( byte( 1 ), low, high ) && tail( 2 ) ? 3 : 0;
   }
   if ( within( first, 0xF0, 0xF4 ) ) {
      const unsigned low = first == 0xF0 ? 0x90 : 0x80;
      const unsigned high = first == 0xF4 ? 0x8F : 0xBF;
      return within( byte( 1 ), low, high ) && tail( 2 ) && tail( 3 ) ? 4 : 0;
   }
   return 0;
}

void appendJsonEscaped( std::string& out, char c ) {
   constexpr std::string_view hex = "0123456789abcdef";
   switch ( c ) {
   case '"':
   case '\\':
      out += '\\';
      out += c;
      return;
   case '\n':
      out += "\\n";
      return;
   case '\t':
      out += "\\t";
      return;
   default:
      break;
   }
   if ( static_cast< unsigned char >( c ) >= 0x20 ) {
      out += c;
      return;
   }
   out += "\\u00";
   out += hex[static_cast< size_t >( c ) >> 4];
   out += hex[static_cast< size_t >( c ) & 0xF];
}

void appendJsonString( std::string& out, std::string_view text ) {
   out += '"';
   while ( !text.empty() ) {
      const size_t length = utf8Length( text );
      if ( length == 1 ) {
         appendJsonEscaped( out, text.front() );
      } else if ( length != 0 ) {
         out += text.substr( 0, length );
      } else {
         out += "\xEF\xBF\xBD"; // the replacement character
      }
      text.remove_prefix( std::max( length, size_t{ 1 } ) );
   }
   out += '"';
}

void appendJsonValue( std::string& out, const AttributeValue& value ) {
   if ( const auto* const text = std::get_if< std::string >( &value ) ) {
      appendJsonString( out, *text );
      return;
   }
   // JSON has no number for these.
   if ( const auto* const number = std::get_if< double >( &value );
        number && !std::isfinite( *number ) ) {
      out += std::isnan( *number ) ? "\"NaN\"" : *number < 0 ? "\"-Infinity\"" : "\"Infinity\"";
      return;
   }
   out += valueText( value );
}

/// Prints one entity as
/// {"entityType":"X","attribute":1,"collection":{"count":2,"elements":{"key":value,...}}}, the
/// elements of a set as an array. Fewer elements than the count were printed when the limit ended
/// them; a collection without elements has the count only.
class JsonPrinter : public AttributeVisitor {
 public:
   JsonPrinter( std::string& out, const PrintLimits& limits, size_t depth )
      : out_( out ), limits_( limits ), depth_( depth ) {}

   void print( const Entity& entity ) {
      out_ += R"({"entityType":)";
      appendJsonString( out_, entity.typeName() );
      if ( depth_ > limits_.depth ) {
         out_ += R"(,"truncated":true)";
      } else {
         entity.visit( *this );
      }
      out_ += '}';
   }

   void attribute( std::string_view name, const AttributeValue& value ) override {
      nameBegin( name );
      appendJsonValue( out_, value );
   }
   bool collectionBegin( std::string_view name, size_t size ) override {
      nameBegin( name );
      out_ += joinText( R"({"count":)", size );
      shown_ = 0;
      close_ = "}";
      return true;
   }
   bool wantsMore() const override { return shown_ < limits_.elementsPerCollection; }
   void element( const std::string& key, const AttributeValue& value ) override {
      keyBegin( key );
      appendJsonValue( out_, value );
   }
   void member( const AttributeValue& key ) override {
      elementBegin( "[", "]}" );
      appendJsonValue( out_, key );
   }
   void child( const std::string& key, const Entity& entity ) override {
      keyBegin( key );
      JsonPrinter( out_, limits_, depth_ + 1 ).print( entity );
   }
   void collectionEnd() override { out_ += close_; }

 private:
   void nameBegin( std::string_view name ) {
      out_ += ',';
      appendJsonString( out_, name );
      out_ += ':';
   }
   void keyBegin( std::string_view key ) {
      elementBegin( "{", "}}" );
      appendJsonString( out_, key );
      out_ += ':';
   }
   void elementBegin( std::string_view open, std::string_view close ) {
      if ( shown_++ == 0 ) {
         out_ += R"(,"elements":)";
         out_ += open;
         close_ = close;
      } else {
         out_ += ',';
      }
   }

   std::string& out_;
   const PrintLimits& limits_;
   const size_t depth_;
   size_t shown_ = 0;
   std::string_view close_;
};

// --- Finding

/// Finds, in one collection of an entity, the child whose key begins the rest of a path. Keys have
/// slashes of their own ("16040/24001"), so the longest key that fits is meant.
class ChildFinder : public AttributeVisitor {
 public:
   ChildFinder( std::string_view collection, std::string_view rest )
      : collection_( collection ), rest_( rest ) {}

   void attribute( std::string_view, const AttributeValue& ) override {}
   bool collectionBegin( std::string_view name, size_t ) override { return name == collection_; }
   bool wantsMore() const override { return found_ == nullptr || length_ != rest_.size(); }
   void element( const std::string&, const AttributeValue& ) override {}
   void member( const AttributeValue& ) override {}
   void child( const std::string& key, const Entity& entity ) override {
      const bool fits =
         rest_.starts_with( key ) && ( rest_.size() == key.size() || rest_[key.size()] == '/' );
      if ( fits && ( found_ == nullptr || key.size() > length_ ) ) {
         found_ = &entity;
         length_ = key.size();
      }
   }
   const Entity* found() const { return found_; }
   /// How much of the rest the key is.
   size_t length() const { return length_; }

 private:
   std::string_view collection_;
   std::string_view rest_;
   const Entity* found_ = nullptr;
   size_t length_ = 0;
};

class AttributeFinder : public AttributeVisitor {
 public:
   explicit AttributeFinder( std::string_view name ) : name_( name ) {}
   void attribute( std::string_view name, const AttributeValue& value ) override {
      if ( name == name_ ) {
         text_ = valueText( value );
      }
   }
   bool collectionBegin( std::string_view, size_t ) override { return false; }
   void element( const std::string&, const AttributeValue& ) override {}
   void member( const AttributeValue& ) override {}
   void child( const std::string&, const Entity& ) override {}
   const std::string& text() const { return text_; }

 private:
   std::string_view name_;
   std::string text_;
};

} // namespace

std::string printText( const Entity& entity, const PrintLimits& limits ) {
   std::string out( entity.typeName() );
   if ( const std::string name = entity.name(); !name.empty() ) {
      out += ' ';
      out += name;
   }
   out += '\n';
   TextPrinter( out, limits, 1, 1 ).print( entity );
   return out;
}

std::string printJson( const Entity& entity, const PrintLimits& limits ) {
   std::string out;
   JsonPrinter( out, limits, 1 ).print( entity );
   return out;
}

const Entity* entityAt( const Entity& root, std::string_view path ) {
   const Entity* at = &root;
   bool more = !path.empty();
   while ( more ) {
      const size_t slash = path.find( '/' );
      if ( slash == std::string_view::npos ) {
         return nullptr;
      }
      const std::string_view rest = path.substr( slash + 1 );
      ChildFinder finder( path.substr( 0, slash ), rest );
      at->visit( finder );
      if ( finder.found() == nullptr ) {
         return nullptr;
      }
      at = finder.found();
      more = finder.length() < rest.size();
      path = more ? rest.substr( finder.length() + 1 ) : std::string_view();
   }
   return at;
}

std::string attributeText( const Entity& entity, std::string_view name ) {
   AttributeFinder finder( name );
   entity.visit( finder );
   return finder.text();
}

} // namespace Vel
