/// Members and messages of the rooms.
#ifndef CHAT_ROOMS_H
#define CHAT_ROOMS_H

#include <Wendrel/kit/websocket/BinaryView.h>
#include <Wendrel/kit/websocket/PreparedMessage.h>
#include <Wendrel/kit/websocket/Session.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace chat
{

using qv::kit::websocket::BinaryView;
using qv::kit::websocket::PreparedMessage;
using qv::kit::websocket::Session;

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

    /// Adds the session to a chat room, created if necessary, and sends it the stored messages.
    /// Returns an error for the client: it is in a chat room already, the nickname is in use, or
    /// there are too many chat rooms with people in them.
    std::string join(Session& session, const std::string& room, const std::string& nickname);

    /// Nothing is sent to the session any more once this has returned. Does nothing when it is in
    /// no room.
    void leave(Session& session);

    /// Sends to everybody in the session's room, itself included. False when it is in none.
    bool say(Session& session, const std::string& text, int64_t timeMs);
    bool showPicture(Session& session, const std::string& mediaType, BinaryView picture,
                     int64_t timeMs);

    size_t getPeopleCount() const;
    size_t getRoomCount() const;

private:
    struct Entry
    {
        PreparedMessage text;
        std::optional<PreparedMessage> picture;
        std::optional<PreparedMessage> textWithoutPicture;  // its text after its picture is dropped
    };

    struct Room
    {
        std::map<std::string, Session*> people;  // by nickname
        std::deque<Entry> history;
        size_t pictureBytes = 0;
    };

    struct Place
    {
        Room* room;
        std::string nickname;
    };

    Room* findOrMake(const std::string& name) QV_REQUIRES(mMutex);
    static void send(Session& session, const Entry& entry);
    static void tell(Room& room, Entry entry);
    static void tellPeople(Room& room);
    static void dropOldPictures(Room& room);

    mutable qv::qvMutex mMutex;
    std::map<std::string, Room> mRooms QV_GUARDED_BY(mMutex);
    std::map<Session*, Place> mPlaces QV_GUARDED_BY(mMutex);
};

}  // namespace chat

#endif
