#include "sdk/UniqueDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace {

using SDK::UniqueDescriptor;

int Open() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

TEST(UniqueDescriptor, IsEmptyAtFirst) {
    const UniqueDescriptor descriptor;
    EXPECT_EQ(descriptor.Get(), -1);
    EXPECT_FALSE(descriptor);
}

TEST(UniqueDescriptor, ClosesWhatItOwnsAtItsEnd) {
    const int raw = Open();
    {
        const UniqueDescriptor descriptor(raw);
        EXPECT_TRUE(descriptor);
        EXPECT_TRUE(IsOpen(raw));
    }
    EXPECT_FALSE(IsOpen(raw));
}

TEST(UniqueDescriptor, ClosesWhatItOwnedWhenItGetsAnother) {
    const int first = Open();
    const int second = Open();
    UniqueDescriptor descriptor(first);
    descriptor.Reset(second);
    EXPECT_FALSE(IsOpen(first));
    EXPECT_TRUE(IsOpen(second));
}

TEST(UniqueDescriptor, LeavesOpenWhatItGaveUp) {
    UniqueDescriptor descriptor(Open());
    const int raw = descriptor.Release();
    EXPECT_FALSE(descriptor);
    EXPECT_TRUE(IsOpen(raw));
    ::close(raw);
}

TEST(UniqueDescriptor, PassesItsDescriptorOnWhenItIsMoved) {
    UniqueDescriptor from(Open());
    const int raw = from.Get();
    UniqueDescriptor to(std::move(from));
    EXPECT_EQ(to.Get(), raw);
    UniqueDescriptor last(Open());
    const int closed = last.Get();
    last = std::move(to);
    EXPECT_EQ(last.Get(), raw);
    EXPECT_TRUE(IsOpen(raw));
    EXPECT_FALSE(IsOpen(closed));
}

TEST(UniqueDescriptor, KeepsErrnoWhenItCloses) {
    UniqueDescriptor descriptor(Open());
    errno = EXDEV;
    descriptor.Reset();
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
