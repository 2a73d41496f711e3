#pragma once
// Reading back what a written systemd unit tells systemd, for tests.

#include <sstream>
#include <string>
#include <vector>

namespace ferrovane::test {

// The value of the last "key=" line of a unit ("" when there is none).
inline std::string unitValue(const std::string& unit, const std::string& key) {
    std::istringstream lines(unit);
    std::string line, value;
    while (std::getline(lines, line))
        if (line.rfind(key + "=", 0) == 0) value = line.substr(key.size() + 1);
    return value;
}

// The words of a command line (ExecStart=, ExecCondition=) as systemd reads an unquoted line:
// prefixes ("-", ":") dropped, split at blanks, then "%%" -> "%" and "\xNN" -> byte.
inline std::vector<std::string> commandWords(const std::string& unit, const std::string& key) {
    std::string value = unitValue(unit, key);
    while (!value.empty() && (value[0] == ':' || value[0] == '-')) value.erase(0, 1);
    std::vector<std::string> words;
    std::istringstream split(value);
    std::string word;
    while (split >> word) {
        std::string decoded;
        for (size_t i = 0; i < word.size(); ++i) {
            if (word[i] == '%' && i + 1 < word.size() && word[i + 1] == '%') decoded += '%', ++i;
            else if (word[i] == '\\' && word[i + 1] == 'x') decoded += static_cast<char>(std::stoi(word.substr(i + 2, 2), nullptr, 16)), i += 3;
            else decoded += word[i];
        }
        words.push_back(decoded);
    }
    return words;
}

}  // namespace ferrovane::test
