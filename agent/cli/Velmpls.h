// velmpls: a forwarding agent for a person's desk, a lab and CI.

#pragma once

#include <string>

namespace Vel::Agent {

/// The whole program; gives its exit status.
int velmpls( int argc, char** argv, const std::string& version );

} // namespace Vel::Agent
