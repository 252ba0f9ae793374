// QMRESTAPIRequest: a read-only view of a running REST operation for
// user-interface bindings: its URL, header fields, body text and whether it
// is loading.
//
// The dependent keys are declared as the bindings have always named them:
// "URL" on "requestOperation.URL", "body" on "requestOperation.data",
// "headers" on "requestOperation.headers" and "loading" on
// "requestOperation.executing". Observers of each hear of a new operation
// (setRequestOperation announces itself) and of a change that the operation
// of the moment announces under the path's last key. The operation itself
// has no properties by those names and announces its state as
// "executingValue" only, so a plain operation never does; a subclass that
// announces them reaches the bindings.
// `isCancelled` is a stored flag that nothing sets: it is always NO. Read
// cancellation from the operation.
//
// Reads the operation's request on the calling thread; use it where the
// request is no longer being filled in.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"
#include "QMFoundation/REST/QMRESTAPIRequestOperation.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMRESTAPIRequest;
using QMRESTAPIRequestRef = std::shared_ptr<QMRESTAPIRequest>;

class QMRESTAPIRequest final : public platform::Object {
public:
    // A missing operation fails the parameter assertion "requestOperation".
    static QMRESTAPIRequestRef create();
    static QMRESTAPIRequestRef create(QMRESTAPIRequestOperationRef requestOperation);

    platform::URL URL() const;
    platform::Dictionary headers() const;
    // The body as UTF-8 text; nothing without a body or when it is not UTF-8.
    std::optional<std::string> body() const;
    bool isLoading() const;
    bool isCancelled() const { return cancelled_; }
    const QMRESTAPIRequestOperationRef& requestOperation() const { return requestOperation_; }
    void setRequestOperation(QMRESTAPIRequestOperationRef operation);

    void cancel();
    void waitUntilFinished();

    std::string className() const override { return "QMRESTAPIRequest"; }
    const platform::PropertyTable& propertyTable() const override;
    std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit QMRESTAPIRequest(QMRESTAPIRequestOperationRef requestOperation);

    QMRESTAPIRequestOperationRef requestOperation_;
    bool cancelled_ = false;
};
