// The rooms, their members and their message history.

#include "Rooms.h"

#include "Protocol.h"

#include "support/FakeSession.h"

#include <FailingMemory.h>

#include <gmock/gmock.h>

#include <list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace chat;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class Listener : public qv::tests::FakeSession
{
public:
    // Returns and removes the messages received since the last call.
    std::vector<std::string> take() { return std::exchange(heard, {}); }

    std::vector<std::string> heard;

private:
    void hear(std::string_view message) override { heard.emplace_back(message); }
};

BinaryView bytes(std::string_view text)
{
    return BinaryView(text);
}

std::string line(const std::string& from, const std::string& text)
{
    return lineMessage(from, text, 1);
}

std::string png(bool bytesFollow)
{
    return pictureMessage("Ann", "image/png", 1, bytesFollow);
}

TEST(Rooms, TellWhoIsThere)
{
    Rooms rooms;
    Listener ann, bob;
    EXPECT_EQ(rooms.join(ann, "one", "Ann"), "");
    EXPECT_THAT(ann.take(), ElementsAre(joinedMessage("one", "Ann"), peopleMessage({"Ann"})));
    EXPECT_EQ(rooms.join(bob, "one", "Bob"), "");
    EXPECT_THAT(ann.take(), ElementsAre(peopleMessage({"Ann", "Bob"})));
    EXPECT_THAT(bob.take(),
                ElementsAre(joinedMessage("one", "Bob"), peopleMessage({"Ann", "Bob"})));
    rooms.leave(ann);
    EXPECT_THAT(ann.take(), IsEmpty());
    EXPECT_THAT(bob.take(), ElementsAre(peopleMessage({"Bob"})));
    EXPECT_EQ(rooms.getPeopleCount(), 1u);
}

TEST(Rooms, DeliverToAllInTheRoomAndToNobodyElse)
{
    Rooms rooms;
    Listener ann, bob, cy;
    rooms.join(ann, "one", "Ann");
    rooms.join(bob, "one", "Bob");
    rooms.join(cy, "two", "Cy");
    ann.take();
    bob.take();
    cy.take();
    EXPECT_TRUE(rooms.say(ann, "hello", 1));
    EXPECT_THAT(ann.take(), ElementsAre(line("Ann", "hello")));
    EXPECT_THAT(bob.take(), ElementsAre(line("Ann", "hello")));
    EXPECT_TRUE(rooms.showPicture(bob, "image/gif", bytes("GIF89a"), 2));
    EXPECT_THAT(ann.take(), ElementsAre(pictureMessage("Bob", "image/gif", 2, true), "GIF89a"));
    EXPECT_THAT(cy.take(), IsEmpty());
}

TEST(Rooms, RefuseASecondRoomATakenNameAndWordsFromOutside)
{
    Rooms rooms;
    Listener ann, other;
    EXPECT_FALSE(rooms.say(ann, "hello", 1));
    EXPECT_FALSE(rooms.showPicture(ann, "image/png", bytes("x"), 1));
    rooms.join(ann, "one", "Ann");
    EXPECT_EQ(rooms.join(ann, "two", "Ann"), "You are in a room already.");
    EXPECT_EQ(rooms.join(other, "one", "Ann"), "Somebody there is called Ann already.");
    EXPECT_EQ(rooms.join(other, "two", "Ann"), "");
    rooms.leave(ann);
    rooms.leave(ann);
    EXPECT_FALSE(rooms.say(ann, "hello", 1));
    EXPECT_EQ(rooms.join(ann, "one", "Ann"), "");
}

TEST(Rooms, KeepTheLast50MessagesForWhoeverComes)
{
    Rooms rooms;
    Listener ann, bob;
    rooms.join(ann, "one", "Ann");
    for (int i = 0; i < 50; ++i)
        rooms.say(ann, std::to_string(i), 1);
    rooms.join(bob, "one", "Bob");
    EXPECT_THAT(bob.heard, SizeIs(52));
    EXPECT_EQ(bob.heard[1], line("Ann", "0"));
    rooms.leave(bob);
    bob.take();
    rooms.say(ann, "50", 1);
    rooms.leave(ann);
    rooms.join(bob, "one", "Bob");
    EXPECT_THAT(bob.heard, SizeIs(52));
    EXPECT_EQ(bob.heard[1], line("Ann", "1"));
    EXPECT_EQ(bob.heard[50], line("Ann", "50"));
}

TEST(Rooms, DropTheOldestPicturesAboveTheLimit)
{
    Rooms rooms;
    Listener ann, bob;
    rooms.join(ann, "one", "Ann");
    const std::string half(Rooms::kPictureHistoryBytes / 2, 'p');
    rooms.showPicture(ann, "image/png", bytes(half), 1);
    rooms.say(ann, "between", 1);
    rooms.showPicture(ann, "image/png", bytes(half), 1);
    rooms.join(bob, "one", "Bob");
    EXPECT_THAT(bob.take(),
                ElementsAre(joinedMessage("one", "Bob"), png(true), half, line("Ann", "between"),
                            png(true), half, peopleMessage({"Ann", "Bob"})));
    rooms.leave(bob);
    rooms.showPicture(ann, "image/png", bytes("x"), 1);
    rooms.join(bob, "one", "Bob");
    EXPECT_THAT(bob.take(),
                ElementsAre(joinedMessage("one", "Bob"), png(false), line("Ann", "between"),
                            png(true), half, png(true), "x", peopleMessage({"Ann", "Bob"})));
}

TEST(Rooms, CountPicturesThatHaveLeftTheHistoryNoLonger)
{
    Rooms rooms;
    Listener ann, bob;
    rooms.join(ann, "one", "Ann");
    const std::string whole(Rooms::kPictureHistoryBytes, 'p');
    rooms.showPicture(ann, "image/png", bytes(whole), 1);
    for (int i = 0; i < 50; ++i)
        rooms.say(ann, "x", 1);
    rooms.showPicture(ann, "image/png", bytes(whole), 1);
    rooms.join(bob, "one", "Bob");
    EXPECT_THAT(bob.take(), Contains(whole));
}

TEST(Rooms, GiveUpAnEmptyRoomForANewOneAtTheLimit)
{
    Rooms rooms;
    std::list<Listener> people(Rooms::kMaxRooms);
    int number = 0;
    for (Listener& person : people)
        EXPECT_EQ(rooms.join(person, "room " + std::to_string(number++), "x"), "");
    Listener late;
    EXPECT_EQ(rooms.join(late, "another", "x"), "There are too many rooms.");
    EXPECT_EQ(rooms.join(late, "room 3", "y"), "");
    rooms.leave(late);
    rooms.leave(people.front());
    EXPECT_EQ(rooms.join(late, "another", "x"), "");
    EXPECT_EQ(rooms.getRoomCount(), Rooms::kMaxRooms);
    EXPECT_EQ(rooms.getPeopleCount(), Rooms::kMaxRooms);
}

// A session whose callback throws is closed: it leaves, and is destroyed.
TEST(Rooms, KeepNothingOfASessionThatFindsNoMemoryToJoin)
{
    integration::exemptThisThread();
    const std::string nickname = "a nickname that needs memory";
    bool isIn = false;
    for (size_t number = 1; !isIn; ++number) {
        SCOPED_TRACE(number);
        Rooms rooms;
        auto first = std::make_unique<Listener>();
        bool hasThrown = false;
        std::thread([&] {
            const integration::FailNthAllocation failing(number, false);
            try {
                rooms.join(*first, "room", nickname);
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
        }).join();
        ASSERT_TRUE(hasThrown);
        // Then the message to it has failed.
        isIn = rooms.getPeopleCount() == 1;
        EXPECT_TRUE(number > 3 || !isIn);
        rooms.leave(*first);
        first.reset();
        Listener second;
        EXPECT_EQ(rooms.join(second, "room", nickname), "");
        EXPECT_EQ(rooms.getPeopleCount(), 1u);
    }
}

}  // namespace
