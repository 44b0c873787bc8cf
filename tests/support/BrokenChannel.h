#pragma once

#include <Poco/Channel.h>
#include <Poco/Exception.h>

namespace TestSupport {

/// A log that cannot be written.
class BrokenChannel : public Poco::Channel {
public:
    void log(const Poco::Message& /*message*/) override { throw Poco::WriteFileException("full"); }
};

}  // namespace TestSupport
