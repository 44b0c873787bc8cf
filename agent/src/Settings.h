#pragma once

#include "Problem.h"

#include <Poco/Util/AbstractConfiguration.h>
#include <json/value.h>

#include <map>
#include <string>
#include <vector>

namespace Agent {

/// What an operator can configure, from the configuration file and, over it, from the command line.
/// Every key is known by name and type; the modules read them from the application's configuration.
class Settings {
public:
    /// Reads a configuration file. What is right is kept, what is wrong is told.
    /// @return what is wrong with it; unknown keys are warnings
    std::vector<Problem> Load(const std::string& path);

    /// Reads the agent's configuration: the file that was named or, when none was, the default one
    /// if it is there. @return as Load
    std::vector<Problem> LoadConfiguration(const std::string& path);

    /// Sets one key from its text on the command line ("report.format", "json").
    /// @return what is wrong, or an empty text
    std::string Set(const std::string& key, const std::string& text);

    /// The value of a key; the default when it was not set.
    std::string Get(const std::string& key) const;
    int GetInt(const std::string& key) const;

    /// True when the key was set from file or command line.
    bool Has(const std::string& key) const { return m_values.count(key) != 0; }

    /// The texts of a key that holds a list.
    std::vector<std::string> GetList(const std::string& key) const;

    /// Copies everything that was set to where modules look for it.
    void Export(Poco::Util::AbstractConfiguration& target) const;

    /// All keys with type and meaning, one a line, for the help.
    static std::string DescribeKeys();

    /// What a configuration file may hold, in JSON Schema, without its head ("$schema", "$id"). As
    /// unknown keys are only warned of, they are allowed.
    static Json::Value Schema();

private:
    void LoadObject(const std::string& path, const Json::Value& object, const std::string& prefix,
                    const std::string& pointer, std::vector<Problem>& problems);

    std::map<std::string, std::string> m_values;  // lists are joined by commas
};

}  // namespace Agent
