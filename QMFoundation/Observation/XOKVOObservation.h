// XOKVOObservation: the removable token of one observation made through the
// key-value observation centre, and the vocabulary the centre's operations
// share: the unregister-manually option bit, selectors and blocks.
#pragma once

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Object.h"

#include <functional>
#include <memory>
#include <string>

class XOKVONotification;

// The top bit of the options. Set, the centre installs no automatic removal
// for the classes of the observer and the target, and the caller removes the
// token itself. The centre strips it before the options reach the platform.
inline constexpr platform::KeyValueObservingOptions XOKVONotificationOptionUnregisterManually = 0x80000000u;

// What a block observer receives for each change.
using XOKVONotificationBlock = std::function<void(const std::shared_ptr<XOKVONotification>& notification)>;

// A selector: a member function of the observer's class that takes the key
// path, the changed object, the change dictionary and the user information.
//
//   class Watcher : public platform::Object {
//   public:
//       void nameDidChange(const std::string& keyPath, const platform::ObjectRef& object,
//                          const platform::Dictionary& change, const platform::Value& userInfo);
//   };
//   center->addObserver(watcher, person, "name", &Watcher::nameDidChange, {}, 0);
//
// Two selectors are equal when they name the same member function. Sending
// one to an observer of a class that lacks it raises "NSInvalidArgumentException".
class XOKVOSelector {
public:
    template <typename T>
    using Method = void (T::*)(const std::string& keyPath, const platform::ObjectRef& object,
                               const platform::Dictionary& change, const platform::Value& userInfo);

    template <typename T>
    XOKVOSelector(Method<T> method)  // implicit, so that &Watcher::nameDidChange reads as a selector
        : method_(static_cast<Method<platform::Object>>(method)), perform_(&performAs<T>)
    {
    }

    void perform(platform::Object& observer, const std::string& keyPath, const platform::ObjectRef& object,
                 const platform::Dictionary& change, const platform::Value& userInfo) const
    {
        perform_(method_, observer, keyPath, object, change, userInfo);
    }

    friend bool operator==(const XOKVOSelector& left, const XOKVOSelector& right)
    {
        return left.method_ == right.method_;
    }

private:
    using Perform = void (*)(Method<platform::Object>, platform::Object&, const std::string&,
                             const platform::ObjectRef&, const platform::Dictionary&, const platform::Value&);

    template <typename T>
    static void performAs(Method<platform::Object> method, platform::Object& observer, const std::string& keyPath,
                          const platform::ObjectRef& object, const platform::Dictionary& change,
                          const platform::Value& userInfo)
    {
        auto* receiver = dynamic_cast<T*>(&observer);
        if (receiver == nullptr) {
            platform::Exception::raise(platform::NSInvalidArgumentException,
                                       observer.description() + " does not respond to the selector of an observation of \""
                                           + keyPath + "\".");
        }
        (receiver->*static_cast<Method<T>>(method))(keyPath, object, change, userInfo);
    }

    Method<platform::Object> method_;
    Perform perform_;
};

// The token of one observation.
class XOKVOObservation {
public:
    virtual ~XOKVOObservation() = default;

    // True while the observation still has a target: until it is removed,
    // by hand or because its observer or target was destroyed.
    virtual bool isValid() const = 0;
    // Ends the observation; removing it again does nothing.
    virtual void remove() = 0;
};
