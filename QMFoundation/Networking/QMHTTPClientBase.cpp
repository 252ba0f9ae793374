#include "QMFoundation/Networking/QMHTTPClientBase.h"

QMHTTPResponseRef QMHTTPClientBase::send(platform::ErrorRef* error)
{
    send();
    waitUntilFinished();
    if (error_) {
        if (error != nullptr) {
            *error = error_;
        }
        return nullptr;
    }
    return response_;
}

void QMHTTPClientBase::didReceiveResponse()
{
    sending_ = false;
    if (const auto delegate = delegate_.lock()) {
        delegate->HTTPClientDidReceiveResponse(*this, response_);
    }
}

void QMHTTPClientBase::didFailToConnect()
{
    sending_ = false;
    if (const auto delegate = delegate_.lock()) {
        delegate->HTTPClientDidFailWithError(*this, error_);
    }
}
