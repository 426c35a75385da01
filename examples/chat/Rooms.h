/// Members and messages of the rooms.
#ifndef CHAT_ROOMS_H
#define CHAT_ROOMS_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace chat
{

/// Somebody to whom messages can be delivered.
class Member
{
public:
    virtual ~Member() = default;

    /// Queue a message; called with the lock of the rooms held.
    virtual void deliverText(const std::string& text) = 0;
    virtual void deliverBinary(std::string_view bytes) = 0;
};

/// All rooms. Each keeps its last 50 messages, and of their pictures the latest 4 MiB, also
/// while nobody is there. Any thread may call any operation.
///
/// One lock guards everything, and messages are queued with it held: so everybody in a room
/// gets the same messages in the same order.
class Rooms
{
public:
    static constexpr size_t kHistoryLength = 50;
    static constexpr size_t kPictureHistoryBytes = 4u << 20;
    static constexpr size_t kMaxRooms = 100;

    /// Adds the member to a chat room, created if necessary, and sends it the stored messages.
    /// Returns an error for the member: it is in a chat room already, the nickname is in use, or
    /// there are too many chat rooms with people in them.
    std::string join(Member& member, const std::string& room, const std::string& nickname);

    /// The member is not delivered to any more once this has returned. Does nothing when it is in
    /// no room.
    void leave(Member& member);

    /// Delivers to everybody in the member's room, the member included. False when it is in none.
    bool say(Member& member, const std::string& text, int64_t timeMs);
    bool showPicture(Member& member, const std::string& mediaType, std::string bytes,
                     int64_t timeMs);

    size_t getPeopleCount() const;
    size_t getRoomCount() const;

private:
    struct Entry
    {
        std::string text;
        std::string textWithoutPicture;  // its text after its picture is dropped
        std::shared_ptr<const std::string> picture;
    };

    struct Room
    {
        std::map<std::string, Member*> people;  // by nickname
        std::deque<Entry> history;
        size_t pictureBytes = 0;
    };

    struct Place
    {
        Room* room;
        std::string nickname;
    };

    Room* findOrMake(const std::string& name) QV_REQUIRES(mMutex);
    static void deliver(Member& member, const Entry& entry);
    static void tell(Room& room, Entry entry);
    static void tellPeople(Room& room);
    static void dropOldPictures(Room& room);

    mutable qv::qvMutex mMutex;
    std::map<std::string, Room> mRooms QV_GUARDED_BY(mMutex);
    std::map<Member*, Place> mPlaces QV_GUARDED_BY(mMutex);
};

}  // namespace chat

#endif
