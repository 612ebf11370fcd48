#pragma once
// Errors the cloud API answers with. An ApiError carries this system's numeric error
// code, the HTTP status that goes with it and a message that is safe to show a client
// (it never contains a token or a password).

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarnu::cloud {

struct Entry;

enum class ErrorCode : int {
    Internal = 1,
    BadInput = 55,
    PartsMissing = 162,
    PartInvalid = 169,
    FileInTheWay = 172,
    NotFound = 174,
    TooLarge = 175,
    NotLoggedIn = 177,
    IsFolder = 181,
    BadLogin = 191,
    Conflict = 202,  ///< a conditional write found another version than the client saw
    QuotaExceeded = 210,  ///< the upload would take the account past its storage quota
    StorageFull = 211,    ///< the service's disk is full; nothing of the request was stored
    TooManyLogins = 220,  ///< login attempts of this user or address are throttled
    Forbidden = 221,      ///< the credential is valid but lacks the role or operator right
    TooSlow = 222,        ///< the client sent its request too slowly
};

/// HTTP status that normally goes with an error code.
int httpStatusFor(ErrorCode code);

class ApiError : public std::runtime_error {
public:
    ApiError(ErrorCode code, const std::string& message, int httpStatus = 0);

    ErrorCode code() const { return code_; }
    int httpStatus() const { return status_; }

    /// Fingerprints the account lacks (only for ErrorCode::PartsMissing).
    std::vector<std::string> missing;
    /// What the path holds now (only for ErrorCode::Conflict; null when nothing is there).
    std::shared_ptr<const Entry> current;
    /// Seconds after which the client may try again (only for ErrorCode::TooManyLogins).
    std::int64_t retryAfterSeconds = 0;

private:
    ErrorCode code_;
    int status_;
};

}  // namespace zarnu::cloud
