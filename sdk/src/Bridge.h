#pragma once

#include "docsource/error.h"
#include "platform/base/Error.h"
#include "platform/base/URL.h"

/// Converts between the library's public values and those of the platform layer, which no public
/// header shows.
namespace docsource::bridge {

/// Every fact of the info becomes its text; the description and the underlying error have members
/// of their own.
Error fromPlatform(const qx::Error& error);
/// The info's entries under the keys that name files travel as URLs, the others as strings.
qx::Error toPlatform(const Error& error);

}  // namespace docsource::bridge
