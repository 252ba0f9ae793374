// QMRESTAPIModel: the base class of plain model objects filled from one level
// of a JSON object and written back to one, through a table of property
// mappings that each model class declares.
//
// A model class is a registered class (Platform/Runtime/Class.h) whose
// superclass chain reaches "QMRESTAPIModel". Its mapping table is the class
// operation "propertyMappings", its properties are those of its property
// table (key-value coding), and its factory makes the empty instance that
// `objectWithJSONObject` fills:
//
//   class Repository : public QMRESTAPIModel {
//       ... const platform::PropertyTable& propertyTable() const override;  // "name", "pushedAt", ...
//   };
//   PLATFORM_CLASS_REGISTRATION(Repository) = QMRESTAPIModel::modelClassDescription<Repository>("Repository", [] {
//       return QMRESTAPIModel::PropertyMappings{
//           QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName("name", "name", true),
//           QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName("pushed_at", "pushedAt",
//                                                                              "NSStringToRFC3339DateTransformer"),
//       };
//   });
//
//   auto repository = QMRESTAPIModel::objectWithJSONObject(*platform::classFromString("Repository"), json);
//
// Contract:
// - The mapping is flat and untyped: a value is set as JSON gave it unless
//   the mapping names a transformer, so a number mapped onto a text property
//   arrives as a number. JSON null and keys without a mapping are skipped.
//   A transformer name that names no registered transformer leaves the
//   property unset when reading, and sends the value as it is when writing.
// - Every call makes a fresh transformer instance (transformers keep no state).
// - `isEqualToObject` is driven by the receiver: a property that is nothing
//   on the receiver, or holds a collection or another object, is not
//   compared, so equality is not symmetric. Kept on purpose.
// - The tables by name are rebuilt on each call, in the order of
//   `propertyMappings` (a later mapping with the same name replaces an
//   earlier one in its place).
// - Models are not synchronised: one thread at a time.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Runtime/Class.h"
#include "QMFoundation/REST/QMRESTAPIModelPropertyMapping.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class QMRESTAPIModel;
using QMRESTAPIModelRef = std::shared_ptr<QMRESTAPIModel>;

class QMRESTAPIModel : public platform::Object {
public:
    using PropertyMappings = std::vector<QMRESTAPIModelPropertyMappingRef>;

    static QMRESTAPIModelRef create();

    // The registration of a model class: superclass, factory and mapping table.
    template <typename Model>
    static platform::ClassDescription modelClassDescription(std::string name, std::function<PropertyMappings()> mappings,
                                                            std::string superclass = "QMRESTAPIModel")
    {
        return platform::ClassDescription(std::move(name))
            .superclass(std::move(superclass))
            .factory([] { return platform::ObjectRef(Model::create()); })
            .template classOperation<PropertyMappings()>("propertyMappings", std::move(mappings));
    }

    // --- Class operations, asked of a model class
    // The class's table, in order; empty for the base class.
    static PropertyMappings propertyMappings(const platform::Class& modelClass);
    // JSON name (or model property name) -> mapping object.
    static platform::Dictionary propertyMappingsByJSONPropertyName(const platform::Class& modelClass);
    static platform::Dictionary propertyMappingsByModelPropertyName(const platform::Class& modelClass);
    // A new instance of the class filled from `jsonObject`; nothing when the
    // class cannot make instances or is not a model class.
    static QMRESTAPIModelRef objectWithJSONObject(const platform::Class& modelClass,
                                                  const platform::Dictionary& jsonObject);

    // --- Instance operations
    // The writable mappings' values under their JSON names, reverse
    // transformed; nothing values are left out.
    platform::Dictionary writableJSONProperties() const;
    bool isEqualToObject(const platform::ObjectRef& other) const;

    std::string className() const override { return "QMRESTAPIModel"; }
    const platform::PropertyTable& propertyTable() const override;
    std::string description() const override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMRESTAPIModel() = default;

    // The registered class of this object; the base class when its own class
    // was not registered.
    const platform::Class& modelClass() const;
};
