#include "QMFoundation/Observation/_XOKVONotificationHelper.h"

#include "QMFoundation/Observation/XOKVONotification.h"
#include "QMFoundation/Observation/XOKVONotificationCenter.h"

#include <algorithm>
#include <typeindex>

namespace {

// The context of every platform registration a helper makes, so that it can
// tell its own notifications from those of a subclass's registrations.
char observationContext;

// The helpers an object takes part in; guarded by its own lock.
class HelperSet final : public platform::Object {
public:
    void insert(std::shared_ptr<_XOKVONotificationHelper> helper)
    {
        std::lock_guard lock(mutex_);
        if (std::find(helpers_.begin(), helpers_.end(), helper) == helpers_.end()) {
            helpers_.push_back(std::move(helper));
        }
    }

    void erase(const _XOKVONotificationHelper* helper)
    {
        std::shared_ptr<_XOKVONotificationHelper> released;  // may be the last reference: let go unlocked
        std::lock_guard lock(mutex_);
        const auto found = std::find_if(helpers_.begin(), helpers_.end(),
                                        [helper](const auto& member) { return member.get() == helper; });
        if (found != helpers_.end()) {
            released = std::move(*found);
            helpers_.erase(found);
        }
    }

    std::vector<std::shared_ptr<_XOKVONotificationHelper>> snapshot() const
    {
        std::lock_guard lock(mutex_);
        return helpers_;
    }

private:
    mutable std::mutex mutex_;  // guards `helpers_`
    std::vector<std::shared_ptr<_XOKVONotificationHelper>> helpers_;
};

std::set<std::size_t> allIndexes(const platform::Array& array)
{
    std::set<std::size_t> indexes;
    for (std::size_t index = 0; index < array.size(); ++index) {
        indexes.insert(index);
    }
    return indexes;
}

}  // namespace

std::shared_ptr<_XOKVONotificationHelper> _XOKVONotificationHelper::create(
    const platform::ObjectRef& observer, const platform::Value& target, std::vector<std::string> keyPaths,
    std::optional<XOKVOSelector> selector, platform::Value userInfo, XOKVONotificationBlock block,
    platform::KeyValueObservingOptions options)
{
    std::shared_ptr<_XOKVONotificationHelper> helper(new _XOKVONotificationHelper(
        observer, target, std::move(keyPaths), std::move(selector), std::move(userInfo), std::move(block), options));
    helper->registerObservations(target);
    if (observer) {
        helper->joinHelperSet(*observer);
    }
    if (const auto object = target.object()) {
        helper->joinHelperSet(*object);
    } else if (const auto* array = target.array()) {
        for (const auto& element : *array) {
            if (const auto member = element.object()) {
                helper->joinHelperSet(*member);
            }
        }
    }
    return helper;
}

_XOKVONotificationHelper::_XOKVONotificationHelper(const platform::ObjectRef& observer, const platform::Value& target,
                                                   std::vector<std::string> keyPaths,
                                                   std::optional<XOKVOSelector> selector, platform::Value userInfo,
                                                   XOKVONotificationBlock block,
                                                   platform::KeyValueObservingOptions options)
    : observer_(observer), observerIdentity_(observer.get()), selector_(std::move(selector)),
      userInfo_(std::move(userInfo)),
      block_(block ? std::make_shared<const XOKVONotificationBlock>(std::move(block)) : nullptr),
      keyPaths_(std::move(keyPaths)), options_(options & ~XOKVONotificationOptionUnregisterManually)
{
    if (const auto object = target.object()) {
        hasTarget_ = true;
        targets_.push_back(object);
        targetIdentities_.push_back(object.get());
    } else if (const auto* array = target.array()) {
        hasTarget_ = true;
        targetIsArray_ = true;
        for (const auto& element : *array) {
            const auto member = element.object();
            targets_.push_back(member);
            targetIdentities_.push_back(member.get());
        }
    }
}

void _XOKVONotificationHelper::registerObservations(const platform::Value& target)
{
    const auto self = shared_from_this();
    // The fields are fixed until the helper is published, so no lock here:
    // and none may be held, because an initial notification calls back in.
    for (const auto& keyPath : keyPaths_) {
        if (const auto* array = target.array()) {
            platform::addObserverToObjectsAtIndexes(*array, allIndexes(*array), self, keyPath, options_,
                                                    &observationContext);
            for (const auto& element : *array) {
                registrations_.emplace_back(element.object(), keyPath);
            }
        } else if (const auto object = target.object()) {
            object->addObserver(self, keyPath, options_, &observationContext);
            registrations_.emplace_back(object, keyPath);
        }
    }
}

void _XOKVONotificationHelper::joinHelperSet(platform::Object& object)
{
    bool created = false;
    const auto set = object
                         .associatedObject(associationKey,
                                           [&created] {
                                               created = true;
                                               return platform::Value(platform::makeObject<HelperSet>());
                                           })
                         .objectAs<HelperSet>();
    if (!set) {
        return;  // something else sits under the key; nothing to join
    }
    if (created) {
        // Every object that takes part gets the clean-up; whether it acts is
        // decided when the object goes, by whether its class has automatic
        // removal by then.
        const std::type_index type(typeid(object));
        object.setDestructionHook(associationKey, [type](platform::Object& dying) {
            XOKVONotificationCenter::_deregisterHelpersOfDestroyedObject(dying, type);
        });
    }
    set->insert(std::static_pointer_cast<_XOKVONotificationHelper>(shared_from_this()));
}

void _XOKVONotificationHelper::leaveHelperSet(platform::Object& object)
{
    if (const auto set = object.associatedObject(associationKey).objectAs<HelperSet>()) {
        set->erase(this);
    }
}

std::vector<std::shared_ptr<_XOKVONotificationHelper>> _XOKVONotificationHelper::helpersOf(const platform::Object& object)
{
    const auto set = object.associatedObject(associationKey).objectAs<HelperSet>();
    return set ? set->snapshot() : std::vector<std::shared_ptr<_XOKVONotificationHelper>>{};
}

bool _XOKVONotificationHelper::isValid() const
{
    std::lock_guard lock(mutex_);
    return hasTarget_;
}

void _XOKVONotificationHelper::remove()
{
    // Leaving the helper sets may drop the last other references to this helper.
    const auto self = weak_from_this().lock();
    std::weak_ptr<platform::Object> observer;
    std::vector<std::weak_ptr<platform::Object>> targets;
    std::vector<std::pair<std::weak_ptr<platform::Object>, std::string>> registrations;
    {
        std::lock_guard lock(mutex_);
        if (removed_) {
            return;
        }
        removed_ = true;
        hasTarget_ = false;
        observer = std::exchange(observer_, {});
        observerIdentity_ = nullptr;
        targets = std::exchange(targets_, {});
        targetIdentities_.clear();
        keyPaths_.clear();
        registrations = std::exchange(registrations_, {});
    }
    // Objects that are being destroyed no longer lock: their own clean-up is
    // what runs this, or it will find the helper gone from their set.
    for (const auto& [target, keyPath] : registrations) {
        if (const auto object = target.lock()) {
            object->removeObserver(*this, keyPath, &observationContext);
        }
    }
    if (const auto object = observer.lock()) {
        leaveHelperSet(*object);
    }
    for (const auto& target : targets) {
        if (const auto object = target.lock()) {
            leaveHelperSet(*object);
        }
    }
}

bool _XOKVONotificationHelper::matches(const platform::Object* observer, const platform::Value& target,
                                       const std::optional<std::set<std::string>>& keyPaths,
                                       const std::optional<XOKVOSelector>& selector) const
{
    std::lock_guard lock(mutex_);
    if (observer != nullptr && observer != observerIdentity_) {
        return false;
    }
    if (const auto object = target.object()) {
        if (targetIsArray_ || targetIdentities_.size() != 1 || targetIdentities_.front() != object.get()) {
            return false;
        }
    } else if (const auto* array = target.array()) {
        if (!targetIsArray_ || !hasTarget_ || array->size() != targetIdentities_.size()
            || !std::equal(array->begin(), array->end(), targetIdentities_.begin(),
                           [](const platform::Value& element, const platform::Object* identity) {
                               return element.object().get() == identity;
                           })) {
            return false;
        }
    } else if (!target.isNothing()) {
        return false;
    }
    if (keyPaths && *keyPaths != std::set<std::string>(keyPaths_.begin(), keyPaths_.end())) {
        return false;
    }
    return !selector || selector == selector_;
}

void _XOKVONotificationHelper::observeValueForKeyPath(const std::string& keyPath, const platform::ObjectRef& object,
                                                      const platform::Dictionary& change, void* context)
{
    if (context != &observationContext) {
        platform::Object::observeValueForKeyPath(keyPath, object, change, context);
        return;
    }
    platform::ObjectRef observer;
    bool hadObserver = false;
    std::optional<XOKVOSelector> selector;
    platform::Value userInfo;
    std::shared_ptr<const XOKVONotificationBlock> block;
    {
        std::lock_guard lock(mutex_);
        if (removed_) {
            return;
        }
        observer = observer_.lock();
        hadObserver = observerIdentity_ != nullptr;
        selector = selector_;
        userInfo = userInfo_;
        block = block_;
    }
    if (hadObserver && !observer) {
        return;  // the observer is being destroyed (or is gone, when removal is manual)
    }
    if (selector) {
        if (observer) {
            selector->perform(*observer, keyPath, object, change, userInfo);
        }
        return;
    }
    if (block && *block) {
        (*block)(XOKVONotification::create(observer, object, keyPath, change));
    }
}
