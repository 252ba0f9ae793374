#include "tests/QMFoundation/REST/TestModels.h"

using Mapping = QMRESTAPIModelPropertyMapping;

PLATFORM_CLASS_REGISTRATION(TestRepository) =
    QMRESTAPIModel::modelClassDescription<resttest::TestRepository>("TestRepository", [] {
        return QMRESTAPIModel::PropertyMappings{
            Mapping::propertyMappingWithJSONPropertyName("id", "identifier"),
            Mapping::propertyMappingWithJSONPropertyName("name", "name", true),
            Mapping::propertyMappingWithJSONPropertyName("pushed_at", "pushedAt", "NSStringToRFC3339DateTransformer", true),
            Mapping::propertyMappingWithJSONPropertyName("homepage", "homepage", "NSStringToNSURLTransformer", true),
            Mapping::propertyMappingWithJSONPropertyName("private", "isPrivate", "NSNumberToBoolTransformer", true),
            Mapping::propertyMappingWithJSONPropertyName("updated_at", "updatedText", "QMTimeagoTransformer", true),
            Mapping::propertyMappingWithJSONPropertyName("owner", "owner", "NoSuchTransformer", true),
            Mapping::propertyMappingWithJSONPropertyName("watchers", "watchers", true),
            Mapping::propertyMappingWithJSONPropertyName("stargazers", "stars"),
        };
    });

// Inherits the repository's mappings through its superclass.
PLATFORM_CLASS_REGISTRATION(TestFork) = platform::ClassDescription("TestFork")
                                            .superclass("TestRepository")
                                            .factory([] { return platform::ObjectRef(resttest::TestFork::create()); });

// Two mappings under one JSON name: the later one wins, in the earlier one's place.
PLATFORM_CLASS_REGISTRATION(TestUser) = QMRESTAPIModel::modelClassDescription<resttest::TestUser>("TestUser", [] {
    return QMRESTAPIModel::PropertyMappings{
        Mapping::propertyMappingWithJSONPropertyName("login", "name"),
        Mapping::propertyMappingWithJSONPropertyName("title", "title"),
        Mapping::propertyMappingWithJSONPropertyName("login", "title"),
    };
});

namespace resttest {

const platform::Class& repositoryClass()
{
    return platformClassRegistration_TestRepository.registeredClass();
}

const platform::Class& forkClass()
{
    return platformClassRegistration_TestFork.registeredClass();
}

const platform::Class& userClass()
{
    return platformClassRegistration_TestUser.registeredClass();
}

}  // namespace resttest
