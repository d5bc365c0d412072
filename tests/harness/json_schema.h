// A validator for the part of JSON Schema (2020-12) the project's schemas use: type, enum,
// const, minimum, maximum, minLength, pattern, required, properties, additionalProperties,
// $ref to "#/$defs/...", allOf, not, if/then/else. Annotations (title, description, $schema,
// $id, $comment) are ignored; any other keyword is reported as a violation, so a schema
// never says more than is checked.
#ifndef RFEVENT_TESTS_JSON_SCHEMA_H
#define RFEVENT_TESTS_JSON_SCHEMA_H

#include <string>
#include <vector>

#include <json/json.h>

namespace rfevent::testkit {

// The violations of instance against schema, each "<JSON pointer>: <what>"; empty when valid.
std::vector<std::string> schemaViolations(const Json::Value& schema, const Json::Value& instance);

// The delivery status file's schema, from the source tree.
const Json::Value& deliveryStatusSchema();

// Reads the delivery status file of the sandbox, checks it parses and matches its schema
// (a failed expectation otherwise), and returns it; an empty object when there is no file.
Json::Value readDeliveryStatus();

} // namespace rfevent::testkit

#endif
