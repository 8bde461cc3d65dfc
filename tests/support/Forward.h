#pragma once

#include <optional>
#include <string>

#include "tests/support/FakeService.h"

namespace velkor::test {

/// The answer of the service at that URL to the request, headers included; closes at once where the exchange breaks off. None
/// when nobody listens there. Any thread.
std::optional<FakeAnswer> forwarded(const FakeRequest& request, const std::string& service);

}  // namespace velkor::test
