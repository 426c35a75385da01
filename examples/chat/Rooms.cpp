// Members and messages of the rooms.

#include "Rooms.h"

#include "Protocol.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace chat
{

std::string Rooms::join(Member& member, const std::string& name, const std::string& nickname)
{
    const qv::qvMutexLocker locker(&mMutex);
    if (mPlaces.count(&member) != 0)
        return "You are in a room already.";
    Room* room = findOrMake(name);
    if (!room)
        return "There are too many rooms.";
    if (!room->people.emplace(nickname, &member).second)
        return "Somebody there is called " + nickname + " already.";
    mPlaces[&member] = {room, nickname};
    member.deliverText(joinedMessage(name, nickname));
    for (const Entry& entry : room->history)
        deliver(member, entry);
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

void Rooms::leave(Member& member)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&member);
    if (place == mPlaces.end())
        return;
    Room& room = *place->second.room;
    room.people.erase(place->second.nickname);
    mPlaces.erase(place);
    tellPeople(room);
}

bool Rooms::say(Member& member, const std::string& text, int64_t timeMs)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&member);
    if (place == mPlaces.end())
        return false;
    tell(*place->second.room, {lineMessage(place->second.nickname, text, timeMs), {}, nullptr});
    return true;
}

bool Rooms::showPicture(Member& member, const std::string& mediaType, std::string bytes,
                        int64_t timeMs)
{
    const qv::qvMutexLocker locker(&mMutex);
    const auto place = mPlaces.find(&member);
    if (place == mPlaces.end())
        return false;
    const std::string& from = place->second.nickname;
    tell(*place->second.room, {pictureMessage(from, mediaType, timeMs, true),
                               pictureMessage(from, mediaType, timeMs, false),
                               std::make_shared<const std::string>(std::move(bytes))});
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

void Rooms::deliver(Member& member, const Entry& entry)
{
    member.deliverText(entry.text);
    if (entry.picture)
        member.deliverBinary(*entry.picture);
}

void Rooms::tell(Room& room, Entry entry)
{
    for (const auto& [nickname, member] : room.people)
        deliver(*member, entry);
    room.pictureBytes += entry.picture ? entry.picture->size() : 0;
    room.history.push_back(std::move(entry));
    if (room.history.size() > kHistoryLength) {
        const auto& oldest = room.history.front().picture;
        room.pictureBytes -= oldest ? oldest->size() : 0;
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
        room.pictureBytes -= entry.picture->size();
        entry.picture = nullptr;
        entry.text = entry.textWithoutPicture;
    }
}

void Rooms::tellPeople(Room& room)
{
    std::vector<std::string> nicknames;
    for (const auto& [nickname, member] : room.people)
        nicknames.push_back(nickname);
    const std::string message = peopleMessage(nicknames);
    for (const auto& [nickname, member] : room.people)
        member->deliverText(message);
}

}  // namespace chat
