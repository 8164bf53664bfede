#pragma once

/* The GObject layer of the Zavlo authentication library: ZavloAuthClient, ZavloAuthBridge
   and the ZAVLO_AUTH_ERROR domain. */
#include "zavlo-auth-bridge.h"
#include "zavlo-auth-client.h"
#include "zavlo-auth-error.h"
