// Any bytes as a REST answer, read into a model with every transformer
// mapped: the parser gives models or nothing with an error, and what a model
// writes back is always JSON. Anything else (an exception, a crash, a bad
// read) is a bug.
#include "QMFoundation/REST/QMRESTAPIJSONParser.h"

#include "Platform/Foundation/JSON.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace {

class FuzzModel final : public QMRESTAPIModel {
public:
    static std::shared_ptr<FuzzModel> create() { return platform::makeObject<FuzzModel>(); }
    std::string className() const override { return "FuzzModel"; }
    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = [] {
            platform::PropertyTable built = QMRESTAPIModel::create()->propertyTable();
            for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
                built = platform::PropertyTable::extending<FuzzModel>(
                    built, {{name, [name](const FuzzModel& model) { return model.get(name); },
                             [name](FuzzModel& model, const platform::Value& value) { model.values_[name] = value; }}});
            }
            return built;
        }();
        return table;
    }

private:
    template <class> friend struct platform::ObjectAllocator;
    FuzzModel() = default;
    platform::Value get(const std::string& name) const
    {
        const auto found = values_.find(name);
        return found == values_.end() ? platform::Value() : found->second;
    }
    std::map<std::string, platform::Value> values_;
};

using Mapping = QMRESTAPIModelPropertyMapping;

}  // namespace

PLATFORM_CLASS_REGISTRATION(FuzzModel) = QMRESTAPIModel::modelClassDescription<FuzzModel>("FuzzModel", [] {
    return QMRESTAPIModel::PropertyMappings{
        Mapping::propertyMappingWithJSONPropertyName("a", "a", true),
        Mapping::propertyMappingWithJSONPropertyName("b", "b", "NSStringToRFC3339DateTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("c", "c", "NSStringToISO8601DateTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("d", "d", "NSStringToNSURLTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("e", "e", "NSNumberToBoolTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("f", "f", "QMOrderedSetToArrayTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("g", "g", "QMTimeagoTransformer", true),
        Mapping::propertyMappingWithJSONPropertyName("h", "h", "NoSuchTransformer", true),
    };
});

namespace {

void check(const QMRESTAPIModelRef& model, const QMRESTAPIModelRef& other)
{
    if (!platform::JSONSerialization::isValidJSONObject(platform::Value(model->writableJSONProperties()))) {
        std::abort();
    }
    if (!model->isEqualToObject(model)) {
        std::abort();
    }
    static_cast<void>(model->isEqualToObject(other));
    static_cast<void>(model->description());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const platform::Data data(bytes, bytes + size);
    const auto& modelClass = platformClassRegistration_FuzzModel.registeredClass();
    platform::ErrorRef error;
    const auto one = QMRESTAPIJSONParser::parseObjectFromJSONData(data, &modelClass, &error);
    if ((one == nullptr) == (error == nullptr)) {
        std::abort();  // exactly one of a model and an error
    }
    error = nullptr;
    const auto many = QMRESTAPIJSONParser::parseObjectsFromJSONData(data, &modelClass, &error);
    if (many.has_value() == (error != nullptr)) {
        std::abort();
    }
    const QMRESTAPIModelRef first = many && !many->empty() ? many->front() : nullptr;
    if (one) {
        check(one, first);
    }
    if (many) {
        for (const auto& model : *many) {
            check(model, one);
        }
    }
    return 0;
}
