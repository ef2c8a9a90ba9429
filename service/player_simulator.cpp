#include "player_simulator.h"

#include "content_store.h"
#include "query_error.h"

#include <tethrix/protocol/json_writer.h>
#include <tethrix/protocol/runtime_state.h>

#include <algorithm>
#include <map>

namespace tethrix::service {

namespace {

/// Every so many ticks the player pauses for a few, and the volume moves.
constexpr unsigned long pauseEvery = 97;
constexpr int pauseTicks = 8;
constexpr unsigned long volumeEvery = 23;
constexpr int minVolume = 4;
constexpr int maxVolume = 24;
/// Enough tracks for a varied queue, few enough to read at once at start.
constexpr int libraryTracks = 300;

std::int64_t integerOf(const protocol::Value& value) {
    if (auto* integer = std::get_if<std::int64_t>(&value))
        return *integer;
    if (auto* real = std::get_if<double>(&value))
        return static_cast<std::int64_t>(*real);
    return 0;
}

double realOf(const protocol::Value& value) {
    if (auto* real = std::get_if<double>(&value))
        return *real;
    if (auto* integer = std::get_if<std::int64_t>(&value))
        return static_cast<double>(*integer);
    return 0.0;
}

std::string textOf(const protocol::Value& value) {
    auto* text = std::get_if<std::string>(&value);
    return text ? *text : std::string();
}

std::vector<SimulatedTrack> madeUpTracks() {
    std::vector<SimulatedTrack> tracks;
    for (int i = 0; i < 24; ++i) {
        tracks.push_back({i + 1, "Track " + std::to_string(i + 1), "Artist " + std::string(1, char('A' + i / 6)),
                          1 + i / 4, 150.0 + 10.0 * (i % 8)});
    }
    return tracks;
}

void writeTrack(protocol::JsonWriter& json, const SimulatedTrack& track, bool withAlbum) {
    json.beginObject();
    json.key("id");
    json.integer(track.id);
    json.key("title");
    json.string(track.title);
    json.key("artist");
    json.string(track.artist);
    if (withAlbum) {
        json.key("album");
        json.integer(track.album);
    }
    json.key("duration");
    protocol::writeRuntimeReal(json, track.duration);
    json.endObject();
}

}  // namespace

/// The values and row operations of one update, written as they come.
class PlayerSimulator::Update {
public:
    Update() {
        values.beginObject();
        rows.beginArray();
    }

    protocol::JsonWriter& value(const char* key) {
        values.key(key);
        return values;
    }

    /// Starts a row operation on the queue; the caller writes the rest and
    /// closes the object.
    protocol::JsonWriter& queueOperation() {
        hasRows = true;
        rows.beginObject();
        rows.key("list");
        rows.string("queue");
        return rows;
    }

    std::string take() {
        values.endObject();
        rows.endArray();
        std::string text = "{\"values\":" + values.take();
        if (hasRows)
            text += ",\"rows\":" + rows.take();
        return text + "}";
    }

private:
    protocol::JsonWriter values;
    protocol::JsonWriter rows;
    bool hasRows = false;
};

PlayerSimulator::PlayerSimulator(std::vector<SimulatedTrack> tracks, unsigned seed)
    : library(std::move(tracks)),
      random(seed) {
    if (library.empty())
        library = madeUpTracks();
    startTrack(pick());
    while (queue.size() < queueLength)
        queue.push_back(pick());
}

std::string PlayerSimulator::fullState() const {
    Update update;
    update.value("state").string(playing ? "playing" : "paused");
    update.value("playing").boolean(playing);
    update.value("volume").integer(volume);
    protocol::writeRuntimeReal(update.value("position"), elapsed);
    protocol::writeRuntimeReal(update.value("progress"), elapsed / currentTrack().duration);
    writeTrack(update.value("track"), currentTrack(), true);
    auto& json = update.value("queue");
    json.beginArray();
    for (std::size_t index : queue)
        writeTrack(json, library[index], false);
    json.endArray();
    std::string albums;
    for (int album : recentAlbums)
        albums += (albums.empty() ? "" : ";") + std::to_string(album);
    update.value("recent_albums").string(albums);
    return update.take();
}

std::string PlayerSimulator::tick() {
    if (needsFullState) {
        needsFullState = false;
        return fullState();
    }
    ++ticks;
    Update update;
    const bool wasPlaying = playing;
    if (pauseTicksLeft > 0) {
        playing = --pauseTicksLeft == 0;
    } else if (ticks % pauseEvery == 0) {
        playing = false;
        pauseTicksLeft = pauseTicks;
    }
    if (playing != wasPlaying) {
        update.value("state").string(playing ? "playing" : "paused");
        update.value("playing").boolean(playing);
    }
    if (playing) {
        elapsed += secondsPerTick;
        if (elapsed >= currentTrack().duration) {
            nextTrack(update);
        } else {
            protocol::writeRuntimeReal(update.value("position"), elapsed);
            protocol::writeRuntimeReal(update.value("progress"), elapsed / currentTrack().duration);
        }
    }
    if (ticks % volumeEvery == 0)
        turnVolume(update);
    return update.take();
}

std::size_t PlayerSimulator::pick() {
    return std::uniform_int_distribution<std::size_t>(0, library.size() - 1)(random);
}

void PlayerSimulator::startTrack(std::size_t index) {
    current = index;
    elapsed = 0.0;
    const int album = library[index].album;
    recentAlbums.erase(std::remove(recentAlbums.begin(), recentAlbums.end(), album), recentAlbums.end());
    recentAlbums.push_front(album);
    if (recentAlbums.size() > recentAlbumCount)
        recentAlbums.pop_back();
}

void PlayerSimulator::nextTrack(Update& update) {
    startTrack(queue.front());
    queue.pop_front();
    auto& removal = update.queueOperation();
    removal.key("remove");
    removal.integer(0);
    removal.endObject();

    queue.push_back(pick());
    auto& insertion = update.queueOperation();
    insertion.key("insert");
    insertion.integer(static_cast<std::int64_t>(queue.size() - 1));
    insertion.key("row");
    writeTrack(insertion, library[queue.back()], false);
    insertion.endObject();

    writeTrack(update.value("track"), currentTrack(), true);
    protocol::writeRuntimeReal(update.value("position"), 0.0);
    protocol::writeRuntimeReal(update.value("progress"), 0.0);
    std::string albums;
    for (int album : recentAlbums)
        albums += (albums.empty() ? "" : ";") + std::to_string(album);
    update.value("recent_albums").string(albums);
}

void PlayerSimulator::turnVolume(Update& update) {
    const int step = std::uniform_int_distribution<int>(-2, 2)(random);
    volume = std::clamp(volume + (step == 0 ? 1 : step), minVolume, maxVolume);
    update.value("volume").integer(volume);
}

std::vector<SimulatedTrack> simulatedTracks(ContentStore& store, const std::string& authority) {
    const std::string base = "content://" + authority + "/";
    protocol::Result tracks;
    protocol::Result artists;
    try {
        tracks = store.execute(
            {0, base + "tracks", {"id", "title", "artist_id", "album_id", "duration"}, "", "id", 0, libraryTracks});
        artists = store.execute({0, base + "artists", {"id", "name"}, "", "", 0, 0});
    } catch (const QueryError&) {
        return madeUpTracks();
    }
    std::map<std::int64_t, std::string> names;
    for (const auto& row : artists.rows)
        names[integerOf(row[0])] = textOf(row[1]);
    std::vector<SimulatedTrack> library;
    for (const auto& row : tracks.rows) {
        // A track of no length would end before it began.
        const double duration = std::max(realOf(row[4]), PlayerSimulator::secondsPerTick);
        library.push_back({static_cast<int>(integerOf(row[0])), textOf(row[1]), names[integerOf(row[2])],
                           static_cast<int>(integerOf(row[3])), duration});
    }
    return library.empty() ? madeUpTracks() : library;
}

}  // namespace tethrix::service
