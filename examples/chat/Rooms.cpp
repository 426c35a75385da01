// Members and messages of the rooms.

#include "Rooms.h"

#include "Protocol.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace chat
{

std::string Rooms::join(Session& session, const std::string& name, const std::string& nickname)
{
    const qv::qvMutexLocker locker(&mMutex);
    if (mPlaces.count(&session) != 0)
        return "You are in a room already.";
    Room* room = findOrMake(name);
    if (!room)
        return "There are too many rooms.";
    // Its memory is taken before the session is in the room: without it, the session is in none.
    std::map<Session*, Place> place;
    place.emplace(&session, Place{room, nickname});
    if (!room->people.emplace(nickname, &session).second)
        return "Somebody there is called " + nickname + " already.";
    mPlaces.merge(place);
    session.sendText(joinedMessage(name, nickname));
    for (const Entry& entry : room->history)
        send(session, entry);
    tellPeople(*room);
    return {};
}

// A new room may take the place of one in which nobody is.
Rooms::Room* Rooms::findOrMake(const std::string& name)
{
    const auto found = mRooms.find(name);
    if (found != mRooms.end())
        return &found->second;
    if (mRooms.size() >= kMaxRooms) {
        const auto empty = std::find_if(mRooms.begin(), mRooms.end(), [](const auto& room) {
            return room.second.people.empty();
        });
        if (empty == mRooms.end())
            return nullptr;
        mRooms.erase(empty);
    }
    return &mRooms[name];
}

void Rooms::leave(Session& session)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&session);
    if (place == mPlaces.end())
        return;
    Room& room = *place->second.room;
    room.people.erase(place->second.nickname);
    mPlaces.erase(place);
    tellPeople(room);
}

bool Rooms::say(Session& session, const std::string& text, int64_t timeMs)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&session);
    if (place == mPlaces.end())
        return false;
    const std::string line = lineMessage(place->second.nickname, text, timeMs);
    tell(*place->second.room, {PreparedMessage::text(line), {}, {}});
    return true;
}

bool Rooms::showPicture(Session& session, const std::string& mediaType, BinaryView picture,
                        int64_t timeMs)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&session);
    if (place == mPlaces.end())
        return false;
    const std::string& from = place->second.nickname;
    tell(*place->second.room,
         {PreparedMessage::text(pictureMessage(from, mediaType, timeMs, true)),
          PreparedMessage::binary(picture),
          PreparedMessage::text(pictureMessage(from, mediaType, timeMs, false))});
    return true;
}

size_t Rooms::getPeopleCount() const
{
    const qv::qvMutexLocker locker(&mMutex);
    return mPlaces.size();
}

size_t Rooms::getRoomCount() const
{
    const qv::qvMutexLocker locker(&mMutex);
    return mRooms.size();
}

void Rooms::send(Session& session, const Entry& entry)
{
    session.send(entry.text);
    if (entry.picture)
        session.send(*entry.picture);
}

void Rooms::tell(Room& room, Entry entry)
{
    for (const auto& [nickname, session] : room.people)
        send(*session, entry);
    room.pictureBytes += entry.picture ? entry.picture->payload().size() : 0;
    room.history.push_back(std::move(entry));
    if (room.history.size() > kHistoryLength) {
        const auto& oldest = room.history.front().picture;
        room.pictureBytes -= oldest ? oldest->payload().size() : 0;
        room.history.pop_front();
    }
    dropOldPictures(room);
}

void Rooms::dropOldPictures(Room& room)
{
    for (Entry& entry : room.history) {
        if (room.pictureBytes <= kPictureHistoryBytes)
            return;
        if (!entry.picture)
            continue;
        room.pictureBytes -= entry.picture->payload().size();
        entry = {*entry.textWithoutPicture, {}, {}};
    }
}

void Rooms::tellPeople(Room& room)
{
    std::vector<std::string> nicknames;
    for (const auto& [nickname, session] : room.people)
        nicknames.push_back(nickname);
    const PreparedMessage message = PreparedMessage::text(peopleMessage(nicknames));
    for (const auto& [nickname, session] : room.people)
        session->send(message);
}

}  // namespace chat
