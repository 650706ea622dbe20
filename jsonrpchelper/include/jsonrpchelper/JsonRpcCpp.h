#pragma once

// The only place that includes libjson-rpc-cpp. The library's headers declare exceptions with throw(…), which
// the language dropped with C++17. While the headers are read, `throw()` means noexcept(true) and `throw(X)`
// means noexcept(false). The headers that the library includes come first, so that the macro changes no other
// text.
#include <json/json.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wkeyword-macro"
#endif
#define throw(...) noexcept(__VA_OPT__(!) true)
#include <jsonrpccpp/client/client.h>
#include <jsonrpccpp/client/iclientconnector.h>
#include <jsonrpccpp/common/errors.h>
#include <jsonrpccpp/common/exception.h>
#include <jsonrpccpp/common/procedure.h>
#include <jsonrpccpp/server/abstractserver.h>
#include <jsonrpccpp/server/abstractserverconnector.h>
#include <jsonrpccpp/server/requesthandlerfactory.h>
#undef throw
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
