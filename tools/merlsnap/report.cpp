// merlsnap's output in text and JSON form.
#include "tools/merlsnap/report.h"

void Report::step(const std::string& text) {
    m_steps.push_back(text);
    if (!m_json) {
        printf("* %s\n", cap_text(text).c_str());
        fflush(stdout);
    }
}

void Report::fact(const std::string& name, const std::string& value) {
    m_facts.emplace_back(name, value);
}

void Report::item(const std::string& list, const std::string& value) {
    for (auto& l : m_lists)
        if (l.first == list) {
            l.second.push_back(value);
            return;
        }
    m_lists.emplace_back(list, std::vector<std::string>{value});
}

std::string json_escape(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                snprintf(buf, sizeof(buf), "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

std::string cap_text(const std::string& s, size_t limit) {
    if (s.size() <= limit) return s;
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) cut--;
    return s.substr(0, cut) + " ... (" + std::to_string(s.size() - cut) +
           " more characters; --json and --log-file keep the whole text)";
}

void Report::finish(const std::string& command, int exit_code, const std::string& error) {
    const bool show_log = exit_code != 0 && m_held != nullptr && !m_held->empty();
    if (!m_json) {
        for (const auto& f : m_facts)
            printf("%-16s %s\n", f.first.c_str(), cap_text(f.second).c_str());
        for (const auto& l : m_lists)
            for (const auto& v : l.second)
                printf("%-16s %s\n", l.first.c_str(), cap_text(v).c_str());
        fflush(stdout);
        if (show_log) {
            fprintf(stderr, "The module's log up to the failure:\n");
            for (const std::string& line : *m_held)
                fprintf(stderr, "  %s\n", cap_text(line).c_str());
        }
        if (exit_code != 0 && !error.empty())
            fprintf(stderr, "merlsnap %s: %s\n", command.c_str(), cap_text(error).c_str());
        return;
    }
    printf("{\"command\":\"%s\",\"ok\":%s,\"exit\":%d", json_escape(command).c_str(),
           exit_code == 0 ? "true" : "false", exit_code);
    if (!error.empty()) printf(",\"error\":\"%s\"", json_escape(error).c_str());
    for (const auto& f : m_facts)
        printf(",\"%s\":\"%s\"", json_escape(f.first).c_str(), json_escape(f.second).c_str());
    for (const auto& l : m_lists) {
        printf(",\"%s\":[", json_escape(l.first).c_str());
        for (size_t i = 0; i < l.second.size(); i++)
            printf("%s\"%s\"", i ? "," : "", json_escape(l.second[i]).c_str());
        printf("]");
    }
    if (show_log) {
        printf(",\"log\":[");
        size_t i = 0;
        for (const std::string& line : *m_held)
            printf("%s\"%s\"", i++ ? "," : "", json_escape(line).c_str());
        printf("]");
    }
    printf(",\"steps\":[");
    for (size_t i = 0; i < m_steps.size(); i++)
        printf("%s\"%s\"", i ? "," : "", json_escape(m_steps[i]).c_str());
    printf("]}\n");
}
