#include "QMFoundation/Networking/QMHTTPTestClient.h"

#include "Platform/Foundation/Exception.h"

#include <utility>

QMHTTPTestClientRef QMHTTPTestClient::create(QMHTTPRequestRef request, QMHTTPResponseRef response, QMHTTPAuthRef auth,
                                             platform::ErrorRef error)
{
    auto client = platform::makeObject<QMHTTPTestClient>(std::move(request), std::move(auth));
    client->setResponse(std::move(response));
    client->setError(std::move(error));
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
    if (isSending()) {
        platform::Exception::raise(platform::NSInternalInconsistencyException,
                                   className() + " can only perform one connection request.");
    }
    setSending(true);
    if (error()) {
        didFailToConnect();
    } else {
        didReceiveResponse();
    }
}
