#include "PolicySchema.h"

namespace Agent {

namespace {

// A string in which no NUL character stands.
constexpr const char* kNoNul = "^[^\\x00]*$";

Json::Value OfType(const char* type) {
    Json::Value schema;
    schema["type"] = type;
    return schema;
}

Json::Value OfObject(const PolicyShape::Fields& fields, const PolicyShape& shape);

Json::Value OfList(const Json::Value& items) {
    Json::Value schema = OfType("array");
    schema["items"] = items;
    return schema;
}

Json::Value OfString() {
    Json::Value schema = OfType("string");
    schema["pattern"] = kNoNul;
    return schema;
}

Json::Value OfValue(PolicyField::Kind kind, const PolicyShape& shape) {
    Json::Value schema;
    switch (kind) {
        case PolicyField::Kind::MODULE:
            schema["const"] = PolicyShape::MODULE_NAME;
            return schema;
        case PolicyField::Kind::CONTENT:
            return OfObject(shape.m_content, shape);
        case PolicyField::Kind::RULES:
            schema = OfList(OfObject(shape.m_rule, shape));
            schema["minItems"] = 1;
            return schema;
        case PolicyField::Kind::PROGRAM:
            schema = OfString();
            schema["minLength"] = 1;
            return schema;
        case PolicyField::Kind::TEXTS:
            return OfList(OfString());
        case PolicyField::Kind::ACTION:
        case PolicyField::Kind::FLAG:
            schema = OfType("boolean");
            schema["default"] = true;
            return schema;
        case PolicyField::Kind::TEXT:
            break;
    }
    return OfType("string");
}

Json::Value OfObject(const PolicyShape::Fields& fields, const PolicyShape& shape) {
    Json::Value schema = OfType("object");
    for (const PolicyField& field : fields) {
        Json::Value& key = schema["properties"][field.m_key];
        key = OfValue(field.m_kind, shape);
        key["description"] = field.m_meaning;
        if (field.m_required) {
            schema["required"].append(field.m_key);
        }
    }
    return schema;
}

}  // namespace

Json::Value PolicySchema::Of(const PolicyShape& shape) {
    Json::Value schema = OfObject(PolicyShape::Envelope(), shape);
    schema["description"] = shape.m_meaning;
    return schema;
}

}  // namespace Agent
