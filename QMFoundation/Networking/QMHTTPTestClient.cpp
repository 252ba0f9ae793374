#include "QMFoundation/Networking/QMHTTPTestClient.h"

#include "Platform/Foundation/Exception.h"

#include <utility>

QMHTTPTestClientRef QMHTTPTestClient::create(QMHTTPRequestRef request, QMHTTPResponseRef response, QMHTTPAuthRef auth,
                                             platform::ErrorRef error)
{
    QMHTTPTestClientRef client(new QMHTTPTestClient(), platform::ObjectDeleter());
    client->request_ = std::move(request);
    client->response_ = std::move(response);
    client->auth_ = std::move(auth);
    client->error_ = std::move(error);
    return client;
}

QMHTTPTestClientRef QMHTTPTestClient::clientWithResponse(QMHTTPResponseRef response)
{
    return create(nullptr, std::move(response));
}

QMHTTPTestClientRef QMHTTPTestClient::clientWithRequest(QMHTTPRequestRef request, QMHTTPResponseRef response)
{
    return create(std::move(request), std::move(response));
}

void QMHTTPTestClient::send()
{
    if (sending_) {
        platform::Exception::raise(platform::NSInternalInconsistencyException,
                                   className() + " can only perform one connection request.");
    }
    sending_ = true;
    if (error_) {
        didFailToConnect();
    } else {
        didReceiveResponse();
    }
}

QMHTTPResponseRef QMHTTPTestClient::send(platform::ErrorRef* error)
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

void QMHTTPTestClient::didReceiveResponse()
{
    sending_ = false;
    if (const auto delegate = delegate_.lock()) {
        delegate->HTTPClientDidReceiveResponse(*this, response_);
    }
}

void QMHTTPTestClient::didFailToConnect()
{
    sending_ = false;
    if (const auto delegate = delegate_.lock()) {
        delegate->HTTPClientDidFailWithError(*this, error_);
    }
}
