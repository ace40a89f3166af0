// A user's program: an entity type of its own that the library prints.

#include "platform/entity/Entity.h"

#include <cstdio>
#include <string>

class Port : public Vel::Entity {
   VEL_ENTITY( Port )
   VEL_KEY( int, number )
   VEL_ATTRIBUTE( bool, up )
   VEL_ENTITY_END
 public:
   explicit Port( int number ) : number_( number ) {}
};

int main() {
   const Vel::Ptr< Port > port = Vel::make< Port >( 7 );
   port->upIs( true );
   const std::string text = Vel::printText( *port );
   std::printf( "%s\n", text.c_str() );
   return text.find( "up" ) != std::string::npos && text.find( "true" ) != std::string::npos ? 0
                                                                                             : 1;
}
