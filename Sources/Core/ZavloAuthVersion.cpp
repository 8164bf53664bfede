#include "Core/ZavloAuthVersion.hpp"

const double ZavloAuthenticationSDKVersionNumber = 1.0;
const char ZavloAuthenticationSDKVersionString[] =
    "@(#)PROGRAM:ZavloAuthenticationSDK  PROJECT:ZavloAuthenticationSDK-1.1.1\n";
