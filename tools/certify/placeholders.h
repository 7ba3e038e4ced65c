#pragma once

#include "certify/traffic.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What a handler's command says of its case: placeholders in the text, variables of its environment.
namespace tessel::certify {

// Names with their values: "group" "239.255.1.2".
using Values = std::vector<std::pair<std::string, std::string>>;

// The values of a case but for {late}: addresses, and {out} for the file that the handler has to write.
Values handler_values(const Endpoints& endpoints, const std::string& out);

// Replaces each {NAME} that has a value; other braces stay as they are. Values are not looked into again.
std::string fill_placeholders(std::string_view text, const Values& values);

// The variables of a handler: TESSEL_GROUP=..., for each value, and TESSEL_CASE.
std::vector<std::string> handler_environment(const Values& values, const std::string& case_name);

}  // namespace tessel::certify
