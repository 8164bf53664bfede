#pragma once

#include "Core/ZavloAuthException.hpp"
#include "Platform/ZavloResult.hpp"

// The library's own operations fail with a ZavloAuthException unless they say otherwise.
template <class T, class E = ZavloAuthException>
class ZavloResult;
