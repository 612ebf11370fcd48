#include "ApiError.h"

namespace zarnu::cloud {

int httpStatusFor(ErrorCode code) {
    switch (code) {
    case ErrorCode::BadInput: return 400;
    case ErrorCode::PartInvalid: return 400;
    case ErrorCode::PartsMissing: return 409;
    case ErrorCode::FileInTheWay: return 409;
    case ErrorCode::IsFolder: return 409;
    case ErrorCode::Conflict: return 409;
    case ErrorCode::NotFound: return 404;
    case ErrorCode::TooLarge: return 413;
    case ErrorCode::NotLoggedIn: return 401;
    case ErrorCode::BadLogin: return 401;
    case ErrorCode::QuotaExceeded: return 507;
    case ErrorCode::StorageFull: return 507;
    case ErrorCode::TooManyLogins: return 429;
    case ErrorCode::Forbidden: return 403;
    case ErrorCode::TooSlow: return 408;
    case ErrorCode::Internal: break;
    }
    return 500;
}

ApiError::ApiError(ErrorCode code, const std::string& message, int httpStatus)
    : std::runtime_error(message), code_(code), status_(httpStatus ? httpStatus : httpStatusFor(code)) {}

}  // namespace zarnu::cloud
