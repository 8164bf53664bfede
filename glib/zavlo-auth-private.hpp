#pragma once

// What the bridge needs of a client: its graph, and the screen and environment the
// bridge is set up with.
#include <memory>

#include "Core/ZavloAuthEnvironment.hpp"
#include "zavlo-auth-client.h"

class ZavloAuthenticationGraph;

ZavloAuthenticationGraph& zavloAuthClientGraph(ZavloAuthClient* client);
std::shared_ptr<void> zavloAuthClientScreen(ZavloAuthClient* client);
ZavloAuthEnvironment zavloAuthClientEnvironment(ZavloAuthClient* client);
