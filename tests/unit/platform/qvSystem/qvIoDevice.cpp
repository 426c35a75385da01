// The error state that every device has.

#include <qvSystem/qvIoDevice.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

class NullDevice : public qvIoDevice
{
public:
    explicit NullDevice(int dataWay = BothWays) : qvIoDevice(dataWay) {}

    uint64_t readBytes(char*, size_t) override { return 0; }
    uint64_t writeBytes(const char*, size_t len) override { return len; }
    bool atEnd() const override { return true; }
};

TEST(qvIoDevice, KeepsTheDataWayItWasMadeWith)
{
    EXPECT_EQ(NullDevice(qvIoDevice::ReadWay).getDataWay(), 1);
    EXPECT_EQ(NullDevice(qvIoDevice::WriteWay).getDataWay(), 2);
    EXPECT_EQ(NullDevice(qvIoDevice::BothWays).getDataWay(), 3);
}

TEST(qvIoDevice, StartsWithoutError)
{
    const NullDevice device;
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_EQ(device.getDeviceErrorMsg(), "");
}

TEST(qvIoDevice, HoldsNothingBack)
{
    NullDevice device;
    EXPECT_TRUE(device.writeBackToDevice());
    device.setDeviceError("broken");
    EXPECT_TRUE(device.writeBackToDevice());
}

TEST(qvIoDevice, KeepsTheFirstErrorText)
{
    NullDevice device;
    device.setDeviceError("first");
    device.setDeviceError("second");
    EXPECT_TRUE(device.hasDeviceError());
    EXPECT_EQ(device.getDeviceErrorMsg(), "first");
}

TEST(qvIoDevice, IsInErrorAlsoWithAnEmptyText)
{
    NullDevice device;
    device.setDeviceError("");
    EXPECT_TRUE(device.hasDeviceError());
    device.setDeviceError("second");
    EXPECT_EQ(device.getDeviceErrorMsg(), "");
}

TEST(qvIoDevice, TakesANewErrorAfterTheOldOneIsCleared)
{
    NullDevice device;
    device.setDeviceError("first");
    device.clearDeviceError();
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_EQ(device.getDeviceErrorMsg(), "");
    device.setDeviceError("second");
    EXPECT_TRUE(device.hasDeviceError());
    EXPECT_EQ(device.getDeviceErrorMsg(), "second");
}

TEST(qvIoDevice, KeepsOneWholeTextWhenManyThreadsSetOne)
{
    NullDevice device;
    std::set<std::string> texts;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        const std::string text(100, static_cast<char>('a' + i));
        texts.insert(text);
        threads.emplace_back([&device, text] {
            device.setDeviceError(text);
            EXPECT_TRUE(device.hasDeviceError());
            EXPECT_EQ(device.getDeviceErrorMsg().size(), 100u);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(texts.count(device.getDeviceErrorMsg()), 1u);
}

}  // namespace
}  // namespace qv::tests
