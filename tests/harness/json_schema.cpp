#include "harness/json_schema.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "harness/sandbox.h"

namespace rfevent::testkit {

namespace {

class Validator {
  public:
    explicit Validator(const Json::Value& root) : root_(root) {}

    void check(const Json::Value& schema, const Json::Value& value, const std::string& where) {
        for (const std::string& keyword : schema.getMemberNames()) {
            checkKeyword(keyword, schema, value, where);
        }
    }

    bool valid(const Json::Value& schema, const Json::Value& value) {
        Validator inner(root_);
        inner.check(schema, value, "");
        return inner.violations.empty();
    }

    std::vector<std::string> violations;

  private:
    void fail(const std::string& where, const std::string& what) {
        violations.push_back((where.empty() ? "/" : where) + ": " + what);
    }

    void checkKeyword(const std::string& keyword, const Json::Value& schema,
                      const Json::Value& value, const std::string& where);
    void checkObject(const Json::Value& schema, const Json::Value& value, const std::string& where);
    void checkNumber(const std::string& keyword, double bound, const Json::Value& value,
                     const std::string& where);

    const Json::Value& resolve(const std::string& reference) {
        const std::string prefix = "#/$defs/";
        if (reference.rfind(prefix, 0) != 0 || !root_["$defs"].isMember(reference.substr(8))) {
            throw std::runtime_error("unsupported $ref " + reference);
        }
        return root_["$defs"][reference.substr(prefix.size())];
    }

    const Json::Value& root_;
};

bool hasType(const Json::Value& value, const std::string& type) {
    if (type == "object") {
        return value.isObject();
    }
    if (type == "array") {
        return value.isArray();
    }
    if (type == "string") {
        return value.isString();
    }
    if (type == "integer") {
        return value.isIntegral() && !value.isBool();
    }
    if (type == "number") {
        return value.isNumeric() && !value.isBool();
    }
    if (type == "boolean") {
        return value.isBool();
    }
    return type == "null" && value.isNull();
}

void Validator::checkNumber(const std::string& keyword, double bound, const Json::Value& value,
                            const std::string& where) {
    if (!value.isNumeric() || value.isBool()) {
        return;
    }
    const double number = value.asDouble();
    if ((keyword == "minimum" && number < bound) || (keyword == "maximum" && number > bound)) {
        fail(where, keyword + " " + std::to_string(bound) + " not met");
    }
}

void Validator::checkObject(const Json::Value& schema, const Json::Value& value,
                            const std::string& where) {
    if (!value.isObject()) {
        return;
    }
    for (const std::string& name : value.getMemberNames()) {
        const std::string path = where + "/" + name;
        if (schema.isMember("properties") && schema["properties"].isMember(name)) {
            check(schema["properties"][name], value[name], path);
        } else if (schema.isMember("additionalProperties")) {
            const Json::Value& extra = schema["additionalProperties"];
            if (extra.isBool() && !extra.asBool()) {
                fail(path, "member not allowed");
            } else if (extra.isObject()) {
                check(extra, value[name], path);
            }
        }
    }
}

void Validator::checkKeyword(const std::string& keyword, const Json::Value& schema,
                             const Json::Value& value, const std::string& where) {
    static const std::set<std::string> annotations = {"$schema",     "$id",   "$comment", "title",
                                                      "description", "$defs", "then",     "else"};
    const Json::Value& argument = schema[keyword];
    if (annotations.count(keyword) != 0) {
        return;
    }
    if (keyword == "type") {
        if (!hasType(value, argument.asString())) {
            fail(where, "not of type " + argument.asString());
        }
    } else if (keyword == "enum" || keyword == "const") {
        bool found = keyword == "const" && argument == value;
        for (const Json::Value& allowed : keyword == "enum" ? argument : Json::Value()) {
            found = found || allowed == value;
        }
        if (!found) {
            fail(where, "value not allowed by " + keyword);
        }
    } else if (keyword == "minimum" || keyword == "maximum") {
        checkNumber(keyword, argument.asDouble(), value, where);
    } else if (keyword == "minLength") {
        if (value.isString() && value.asString().size() < argument.asUInt()) {
            fail(where, "shorter than minLength");
        }
    } else if (keyword == "pattern") {
        if (value.isString() &&
            !std::regex_search(value.asString(), std::regex(argument.asString()))) {
            fail(where, "does not match " + argument.asString());
        }
    } else if (keyword == "required") {
        for (const Json::Value& name : argument) {
            if (value.isObject() && !value.isMember(name.asString())) {
                fail(where, "lacks " + name.asString());
            }
        }
    } else if (keyword == "properties" || keyword == "additionalProperties") {
        if (keyword == "properties" || !schema.isMember("properties")) {
            checkObject(schema, value, where);
        }
    } else if (keyword == "$ref") {
        check(resolve(argument.asString()), value, where);
    } else if (keyword == "allOf") {
        for (const Json::Value& part : argument) {
            check(part, value, where);
        }
    } else if (keyword == "not") {
        if (valid(argument, value)) {
            fail(where, "matches what \"not\" excludes");
        }
    } else if (keyword == "if") {
        const char* branch = valid(argument, value) ? "then" : "else";
        if (schema.isMember(branch)) {
            check(schema[branch], value, where);
        }
    } else {
        fail(where, "keyword " + keyword + " is not supported by this validator");
    }
}

} // namespace

std::vector<std::string> schemaViolations(const Json::Value& schema, const Json::Value& instance) {
    Validator validator(schema);
    validator.check(schema, instance, "");
    return validator.violations;
}

const Json::Value& deliveryStatusSchema() {
    static const Json::Value schema =
        parseJson(readFile(RFEVENT_SCHEMA_DIR "/delivery-status.schema.json"));
    return schema;
}

Json::Value readDeliveryStatus() {
    const std::string path = rooted("/var/run/rfevent/delivery-status.json");
    if (!fileExists(path)) {
        return Json::Value(Json::objectValue);
    }
    const std::string text = readFile(path);
    Json::Value status;
    Json::CharReaderBuilder builder;
    builder["strictRoot"] = true;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &status, &errors)) {
        ADD_FAILURE() << "the delivery status file does not parse: " << errors << "\n" << text;
        return Json::Value(Json::objectValue);
    }
    for (const std::string& violation : schemaViolations(deliveryStatusSchema(), status)) {
        ADD_FAILURE() << "delivery status file: " << violation << "\n" << text;
    }
    return status;
}

} // namespace rfevent::testkit
