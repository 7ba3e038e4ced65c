#include "certify/placeholders.h"

namespace tessel::certify {

Values handler_values(const Endpoints& endpoints, const std::string& out) {
    return {{"group", endpoints.group},
            {"port", std::to_string(endpoints.port)},
            {"iface", endpoints.iface},
            {"session", endpoints.session},
            {"retrans", endpoints.retrans},
            {"snapshot", endpoints.snapshot},
            {"out", out}};
}

std::string fill_placeholders(std::string_view text, const Values& values) {
    std::string filled;
    while (!text.empty()) {
        const std::size_t brace = text.find('{');
        filled += text.substr(0, brace);
        if (brace == std::string_view::npos) {
            break;
        }
        text.remove_prefix(brace);
        std::size_t taken = 1;
        std::string_view put = "{";
        for (const auto& [name, value] : values) {
            if (text.substr(1).starts_with(name) && text.substr(1 + name.size()).starts_with('}')) {
                put = value;
                taken = name.size() + 2;
            }
        }
        filled += put;
        text.remove_prefix(taken);
    }
    return filled;
}

std::vector<std::string> handler_environment(const Values& values, const std::string& case_name) {
    std::vector<std::string> variables;
    for (const auto& [name, value] : values) {
        std::string variable = "TESSEL_";
        for (const char letter : name) {
            variable += static_cast<char>(letter - 'a' + 'A');
        }
        variables.push_back(variable + "=" + value);
    }
    variables.push_back("TESSEL_CASE=" + case_name);
    return variables;
}

}  // namespace tessel::certify
