// What a merlsnap command tells its user: steps in words, facts as
// name/value pairs, printed as text or as one JSON object. Not thread-safe.
#pragma once

#include <stdio.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

class Report {
public:
    explicit Report(bool json) : m_json(json) {}

    // A step in words a backup administrator understands, shown as it happens.
    void step(const std::string& text);
    void fact(const std::string& name, const std::string& value);
    void item(const std::string& list, const std::string& value);
    // Prints the facts (text mode) or the whole JSON object, with the outcome.
    void finish(const std::string& command, int exit_code, const std::string& error);
    // Module log lines held back while the command ran: a failure shows them
    // before its error (text) or under "log" (JSON).
    void attach_held_log(const std::deque<std::string>* lines) { m_held = lines; }

private:
    bool m_json;
    const std::deque<std::string>* m_held = nullptr;
    std::vector<std::string> m_steps;
    std::vector<std::pair<std::string, std::string>> m_facts;
    std::vector<std::pair<std::string, std::vector<std::string>>> m_lists;
};

std::string json_escape(const std::string& s);

// What a terminal is shown of one message: at most `limit` bytes (never half
// a UTF-8 character), then how much was left out and where it is whole.
std::string cap_text(const std::string& s, size_t limit = 1000);
