#pragma once

#include "core/foundation/HttpError.h"
#include "core/foundation/HttpTransport.h"

#include <stop_token>

namespace quorlin {

// How a service call reads a failed exchange: as a generation (a reply that isn't HTTP is
// the service's fault, anything else passes through as HttpError) or as a connection check
// (every failure but a stop means the service can't be reached).
enum class ServiceCall { generation, connectionCheck };

// Sends one request to an outside service. ClientError is the client's error type, with
// the factories invalidResponse() and notReachable(). A stop request always passes
// through as HttpError(cancelled): the caller gave up, the service may be fine.
template <typename ClientError>
HttpResponse sendToService(HttpTransport& transport, const HttpRequest& request,
                           const std::stop_token& stopToken, ServiceCall call) {
    try {
        return transport.send(request, stopToken);
    } catch (const HttpError& error) {
        if (error.kind() == HttpError::Kind::invalidResponse) {
            throw ClientError::invalidResponse();
        }
        if (call == ServiceCall::generation || error.kind() == HttpError::Kind::cancelled) {
            throw;
        }
        throw ClientError::notReachable();
    }
}

} // namespace quorlin
