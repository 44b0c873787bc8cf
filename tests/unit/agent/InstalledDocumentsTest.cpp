// The documents of the package, which lie in one folder.

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace {

using Names = std::set<std::string>;

/// What the first group of an expression finds in a text.
Names Find(const std::string& text, const char* expression) {
    const std::regex wanted(expression);
    Names names;
    for (std::sregex_iterator found(text.begin(), text.end(), wanted), end; found != end; ++found) {
        names.insert((*found)[1].str());
    }
    return names;
}

TEST(InstalledDocuments, LeadOnlyToEachOther) {
    const Names documents =
        Find(TestSupport::ReadText(SOURCE_FOLDER "/cmake/Package.cmake"), R"(docs/([a-z]+\.md))");
    EXPECT_GE(documents.size(), 12U);
    for (const std::string& document : documents) {
        const std::string text = TestSupport::ReadText(SOURCE_FOLDER "/docs/" + document);
        EXPECT_FALSE(text.empty()) << document;
        for (const std::string& target : Find(text, R"(\]\((?!https?:|#)([^)#]+))")) {
            EXPECT_EQ(documents.count(target), 1U) << document << " leads to " << target;
        }
    }
}

}  // namespace
