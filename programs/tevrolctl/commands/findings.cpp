// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/commands/findings.h"

#include <json-glib/json-glib.h>

#include <array>
#include <utility>

#include "devkit/glib.h"
#include "devkit/outside-text.h"
#include "programs/common/output.h"

namespace programs {

void Findings::Ok(const std::string& what, const std::string& finding) {
    Tell("ok", kGreen, what, finding, "");
}

void Findings::Warn(const std::string& what, const std::string& finding,
                    const std::string& remedy) {
    Tell("warn", kYellow, what, finding, remedy);
    m_warned = true;
}

void Findings::Fail(ExitStatus status, const std::string& what, const std::string& finding,
                    const std::string& remedy) {
    Tell("FAIL", kRed, what, finding, remedy);
    m_status = m_status == kExitOk ? status : m_status;
}

void Findings::Tell(const std::string& verdict, const char* colour, const std::string& what,
                    const std::string& finding, const std::string& remedy) const {
    if (!m_json) {
        constexpr std::size_t kWidth = 5;
        const std::string padded = verdict + std::string(kWidth - verdict.size(), ' ');
        PrintLine(Coloured(colour, padded) + " " + what + ": " + finding +
                  (remedy.empty() ? "" : " (" + remedy + ")"));
        return;
    }
    const std::array<std::pair<const char*, const std::string&>, 4> members = {
        {{"verdict", verdict}, {"what", what}, {"finding", finding}, {"remedy", remedy}}};
    JsonObject* object = json_object_new();
    for (const auto& [name, text] : members) {
        if (!text.empty()) {
            json_object_set_string_member(object, name, text.c_str());
        }
    }
    JsonNode* node = json_node_new(JSON_NODE_OBJECT);
    json_node_take_object(node, object);
    PrintLine(tevrol::PrintableJson(tevrol::TakeText(json_to_string(node, FALSE))));
    json_node_unref(node);
}

}  // namespace programs
