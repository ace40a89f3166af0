#include "agent/cli/Velmpls.h"

int main( int argc, char** argv ) {
   return Vel::Agent::velmpls( argc, argv, VELMPLS_VERSION );
}
