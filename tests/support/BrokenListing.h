#pragma once

namespace TestSupport {

/// While it lives, the thread that made it can read some more entries of folders with readdir(3),
/// and then none, as on a bad disk. One at a time for each thread.
class BrokenListing {
public:
    /// @param entries  how many, "." and ".." among them
    explicit BrokenListing(int entries);
    ~BrokenListing();
    BrokenListing(const BrokenListing&) = delete;
    BrokenListing& operator=(const BrokenListing&) = delete;
};

}  // namespace TestSupport
