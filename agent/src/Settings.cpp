#include "Settings.h"

#include "FileTrust.h"
#include "JsonFile.h"
#include "sdk/StrUtils.h"

#include <Poco/File.h>
#include <Poco/Format.h>
#include <Poco/NumberParser.h>
#include <Poco/RegularExpression.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <system_error>

namespace Agent {

namespace {

enum class Kind { TEXT, NUMBER, LIST, OUTPUTS };

/// One key that may be set.
struct Row {
    const char* m_key;
    Kind m_kind;
    const char* m_default;
    const char* m_allowed;  // for texts: the words that may be given, or "" for any text
    int m_least;            // for numbers
    int m_most;
    const char* m_meaning;
};

constexpr const char* kDefaultConfig = "/etc/vmescape/agent.json";

constexpr const char* kLevels = "fatal critical error warning notice information debug trace";

constexpr std::array<Row, 30> kRows = {{
    {"policies", Kind::TEXT, "/etc/vmescape/policies", "", 0, 0, "folder of the feature policies"},
    {"modules", Kind::TEXT, "", "", 0, 0, "folder of the modules"},
    {"optional_modules", Kind::LIST, "", "", 0, 0, "modules whose absence is no error"},
    {"log_level", Kind::TEXT, "notice", kLevels, 0, 0, "least important lines to log"},
    {"cpu_share", Kind::NUMBER, "0", "", 0, 100, "percent of a core for each task, 0: no limit"},
    {"status.socket", Kind::TEXT, "/run/vmescape/agent.sock", "", 0, 0,
     "where \"status\" asks, empty: nowhere"},
    {"report.output", Kind::OUTPUTS, "stdout", "", 0, 0,
     "where alarms go; text:, json:, ocsf: or ecs: before one names its own format"},
    {"report.format", Kind::TEXT, "auto", "auto text json ocsf ecs", 0, 0,
     "how alarms are written"},
    {"report.color", Kind::TEXT, "auto", "auto always never", 0, 0, "colours in text alarms"},
    {"report.queue", Kind::NUMBER, "8192", "", 1, 1000000, "alarms that may wait for the output"},
    {"report.file.megabytes", Kind::NUMBER, "0", "", 0, 1 << 20,
     "size after which an output file is rotated, 0: never"},
    {"report.file.keep", Kind::NUMBER, "8", "", 1, 999, "rotated files that are kept"},
    {"report.file.full", Kind::TEXT, "drop", "drop rotate wait", 0, 0,
     "on a full disk: lose alarms, remove the oldest rotated file, or wait"},
    {"report.kafka.brokers", Kind::TEXT, "", "", 0, 0,
     "brokers of output kafka, HOST:PORT, several with commas"},
    {"report.kafka.topic", Kind::TEXT, "vmescape-alarms", "", 0, 0, "topic of output kafka"},
    {"report.kafka.properties_file", Kind::TEXT, "", "", 0, 0,
     "file of further NAME=VALUE lines for the client of output kafka"},
    {"report.spool.folder", Kind::TEXT, "/var/lib/vmescape/spool", "", 0, 0,
     "where alarms wait for a server that is away, empty: in memory"},
    {"report.spool.megabytes", Kind::NUMBER, "64", "", 1, 1000000, "how much may wait there"},
    {"report.webhook.url", Kind::TEXT, "", "", 0, 0, "where the output webhook posts alarms to"},
    {"report.webhook.headers_file", Kind::TEXT, "", "", 0, 0,
     "file of \"Name: value\" lines, such as tokens, that nobody else may read"},
    {"report.webhook.ca", Kind::TEXT, "", "", 0, 0,
     "file of the authorities that are trusted, empty: the system's"},
    {"report.webhook.batch", Kind::NUMBER, "100", "", 1, 10000, "alarms in one request"},
    {"report.webhook.timeout", Kind::NUMBER, "5", "", 1, 300, "seconds for a request"},
    {"process_collect.source", Kind::TEXT, "auto", "auto bpf connector", 0, 0,
     "where process events come from"},
    {"process_collect.ring_bytes", Kind::NUMBER, "4194304", "", 4096, 1 << 30,
     "size of the kernel's event buffer, a power of two"},
    {"process_collect.backlog", Kind::NUMBER, "65536", "", 1, 10000000,
     "events that a slow task may fall behind"},
    {"filenotify.backlog", Kind::NUMBER, "65536", "", 1, 10000000,
     "file accesses that a slow task may fall behind"},
    {"record.file", Kind::TEXT, "", "", 0, 0, "where to record what the detection is told"},
    {"record.megabytes", Kind::NUMBER, "1024", "", 1, 1 << 20, "how large a recording may become"},
    {"net_collect.holders", Kind::TEXT, "auto", "auto bpf proc", 0, 0,
     "how the processes that hold a socket are found"},
}};

const Row* Find(const std::string& key) {
    const auto found = std::find_if(kRows.begin(), kRows.end(),
                                    [&key](const Row& row) { return key == row.m_key; });
    return found == kRows.end() ? nullptr : found;
}

/// True when a known key lies below this one ("report" of "report.format").
bool IsGroup(const std::string& key) {
    return std::any_of(kRows.begin(), kRows.end(), [&key](const Row& row) {
        return std::string(row.m_key).rfind(key + '.', 0) == 0;
    });
}

std::vector<std::string> SplitWords(const std::string& text, const std::string& separators) {
    const Poco::StringTokenizer words(text, separators, Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    return {words.begin(), words.end()};
}

/// What is expected of a key's value.
std::string Expected(const Row& row) {
    if (row.m_kind == Kind::NUMBER) {
        return Poco::format("a whole number from %d to %d", row.m_least, row.m_most);
    }
    if (row.m_kind == Kind::LIST) {
        return "a list of strings";
    }
    if (row.m_kind == Kind::OUTPUTS) {
        return "stdout, file:PATH, journald, syslog, syslog:local:PATH, syslog:unix:PATH, "
               "syslog:tcp:HOST:PORT, webhook or kafka, or several of them";
    }
    return *row.m_allowed == '\0' ? std::string("a string")
                                  : "one of: " + std::string(row.m_allowed);
}

/// One place for alarms, with or without a format before it.
constexpr const char* kOutput =
    "^((text|json|ocsf|ecs):)?(stdout|file:.+|journald|syslog|syslog:(local|unix):/"
    ".+|syslog:tcp:.+:[0-9]{1,5}|webhook|kafka)$";

bool IsOutput(const std::string& text) {
    static const Poco::RegularExpression output(kOutput);
    return output.match(text);
}

bool AreOutputs(const std::string& text) {
    std::vector<std::string> outputs;
    SDK::StrUtils::Split(text, ",", outputs);
    return std::all_of(outputs.begin(), outputs.end(), IsOutput);
}

/// Digits and nothing else: neither signs nor blanks, nor commas, of which 1,5 would become 15.
bool IsNumber(const Row& row, const std::string& text) {
    int number = 0;
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
           std::from_chars(text.data(), text.data() + text.length(), number).ec == std::errc() &&
           number >= row.m_least && number <= row.m_most;
}

/// Whether a text is good for a key.
bool IsGood(const Row& row, const std::string& text) {
    if (row.m_kind == Kind::NUMBER) {
        return IsNumber(row, text);
    }
    if (row.m_kind == Kind::OUTPUTS) {
        return AreOutputs(text);
    }
    const std::vector<std::string> words = SplitWords(row.m_allowed, " ");
    return words.empty() || std::find(words.begin(), words.end(), text) != words.end();
}

/// The strings of a list with commas between; false when it is no list of strings.
bool JoinStrings(const Json::Value& value, std::string& text) {
    text.clear();
    for (Json::ArrayIndex i = 0; value.isArray() && i < value.size(); ++i) {
        text += (i == 0 ? "" : ",") + (value[i].isString() ? value[i].asString() : "");
    }
    return value.isArray() && std::all_of(value.begin(), value.end(),
                                          [](const Json::Value& v) { return v.isString(); });
}

/// A JSON value as the text that the command line would give; false when its type is wrong.
bool ToText(const Row& row, const Json::Value& value, std::string& text) {
    switch (row.m_kind) {
        case Kind::TEXT:
            text = value.isString() ? value.asString() : "";
            return value.isString();
        case Kind::NUMBER:
            text = value.isInt() ? std::to_string(value.asInt()) : "";
            return value.isInt();
        case Kind::OUTPUTS:
            if (value.isString()) {
                text = value.asString();
                return true;
            }
            return JoinStrings(value, text);
        case Kind::LIST:
            return JoinStrings(value, text);
    }
    return false;
}

Json::Value StringSchema() {
    Json::Value schema;
    schema["type"] = "string";
    return schema;
}

/// One output or several with commas between. As each is looked at for itself, a dot means no comma
/// here; and to the dot's own mind no line's end.
Json::Value OutputsSchema() {
    const std::string whole = kOutput;
    const std::string one = Poco::replace(whole.substr(1, whole.length() - 2), ".+", "[^,]+");
    Json::Value text = StringSchema();
    text["pattern"] = "^(" + one + ")(,(" + one + "))*$";
    text["not"]["pattern"] = "\\n";
    Json::Value list;
    list["type"] = "array";
    list["items"] = text;
    list["minItems"] = 1;
    Json::Value schema;
    schema["anyOf"].append(text);
    schema["anyOf"].append(list);
    return schema;
}

Json::Value RowSchema(const Row& row) {
    Json::Value schema = StringSchema();
    if (row.m_kind == Kind::NUMBER) {
        schema["type"] = "integer";
        schema["minimum"] = row.m_least;
        schema["maximum"] = row.m_most;
        schema["default"] = Poco::NumberParser::parse(row.m_default);
    } else if (row.m_kind == Kind::LIST) {
        schema["type"] = "array";
        schema["items"] = StringSchema();
        schema["default"] = Json::arrayValue;
    } else {
        if (row.m_kind == Kind::OUTPUTS) {
            schema = OutputsSchema();
        }
        for (const std::string& word : SplitWords(row.m_allowed, " ")) {
            schema["enum"].append(word);
        }
        schema["default"] = row.m_default;
    }
    std::string meaning = row.m_meaning;
    meaning.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(meaning.front())));
    schema["description"] = meaning + '.';
    return schema;
}

}  // namespace

std::vector<Problem> Settings::LoadConfiguration(const std::string& path) {
    if (path.empty() && !Poco::File(kDefaultConfig).exists()) {
        return {};
    }
    return Load(path.empty() ? kDefaultConfig : path);
}

std::vector<Problem> Settings::Load(const std::string& path) {
    std::vector<Problem> problems;
    std::string text;
    Json::Value root;
    if (const std::string wrong = FileTrust::WhyNot(path); !wrong.empty()) {
        problems.push_back({path, "", "is refused: " + wrong});
        return problems;
    }
    if (ReadWholeFile(path, text, problems) && ParseObject(path, text, root, problems)) {
        LoadObject(path, root, "", "", problems);
    }
    return problems;
}

void Settings::LoadObject(const std::string& path, const Json::Value& object,
                          const std::string& prefix, const std::string& pointer,
                          std::vector<Problem>& problems) {
    for (const std::string& name : object.getMemberNames()) {
        const Json::Value& value = object[name];
        const std::string key = prefix + name;
        const std::string place = Pointer(pointer, name);
        if (IsGroup(key) && value.isObject()) {
            LoadObject(path, value, key + '.', place, problems);
            continue;
        }
        const Row* row = Find(key);
        if (row == nullptr) {
            const std::string what = IsGroup(key) ? "expected an object" : "unknown key";
            problems.push_back({path, place, what, !IsGroup(key)});
            continue;
        }
        std::string text;
        if (ToText(*row, value, text) && IsGood(*row, text)) {
            m_values[key] = text;
        } else {
            const std::string found =
                text.empty() ? DescribeType(value) : Poco::format("\"%s\"", text);
            problems.push_back({path, place, "expected " + Expected(*row) + ", found " + found});
        }
    }
}

std::string Settings::Set(const std::string& key, const std::string& text) {
    const Row* row = Find(key);
    if (row == nullptr) {
        return Poco::format("unknown key \"%s\"", key);
    }
    if (!IsGood(*row, text)) {
        return Poco::format("%s: expected %s, found \"%s\"", key, Expected(*row), text);
    }
    m_values[key] = text;
    return "";
}

std::string Settings::Get(const std::string& key) const {
    const auto set = m_values.find(key);
    if (set != m_values.end()) {
        return set->second;
    }
    const Row* row = Find(key);
    return row == nullptr ? "" : row->m_default;
}

int Settings::GetInt(const std::string& key) const { return Poco::NumberParser::parse(Get(key)); }

std::vector<std::string> Settings::GetList(const std::string& key) const {
    return SplitWords(Get(key), ",");
}

void Settings::Export(Poco::Util::AbstractConfiguration& target) const {
    for (const auto& [key, value] : m_values) {
        target.setString(key, value);
    }
}

std::string Settings::DescribeKeys() {
    std::string text;
    for (const Row& row : kRows) {
        text += Poco::format("  %s: %s (%s; default \"%s\")\n", std::string(row.m_key),
                             std::string(row.m_meaning), Expected(row), std::string(row.m_default));
    }
    return text;
}

Json::Value Settings::Schema() {
    Json::Value schema;
    schema["type"] = "object";
    schema["description"] = "The configuration of vmescape-agent.";
    Json::Value& keys = schema["properties"];
    for (const Row& row : kRows) {
        const std::string key = row.m_key;
        const std::size_t dot = key.find('.');
        if (dot == std::string::npos) {
            keys[key] = RowSchema(row);
            continue;
        }
        const std::string group = key.substr(0, dot);
        const std::string name = key.substr(dot + 1);
        keys[group]["type"] = "object";
        keys[group]["description"] = Poco::format("The keys of -o that begin with \"%s.\".", group);
        keys[group]["properties"][name] = RowSchema(row);
        // As on the command line, which a file may do, too.
        keys[key]["$ref"] = Poco::format("#/properties/%s/properties/%s", group, name);
        keys[key]["description"] = Poco::format("The same as %s in %s.", name, group);
    }
    return schema;
}

}  // namespace Agent
