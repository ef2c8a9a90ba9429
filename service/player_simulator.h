// A music player that the service can run in place of a real one, for demos
// and trying out a UI: it plays through a queue of tracks at twenty times
// the real speed and publishes what changes as update text, a few times a
// second, to the tree of examples/player.xml:
//
//   state, playing, volume   change now and then (a pause, a turn of the knob)
//   position, progress       every tick while playing
//   track                    the track playing, an object
//   queue                    the tracks to come, a list; at the end of a track
//                            its first row goes and a new one is added
//   recent_albums            the ids of the last albums played, "12;7;3", which
//                            a configuration expands into album rows
#ifndef TETHRIX_SERVICE_PLAYER_SIMULATOR_H
#define TETHRIX_SERVICE_PLAYER_SIMULATOR_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <random>
#include <string>
#include <vector>

namespace tethrix::service {

class ContentStore;

struct SimulatedTrack {
    int id = 0;
    std::string title;
    std::string artist;
    int album = 0;
    double duration = 0.0;
};

class PlayerSimulator {
public:
    static constexpr std::chrono::milliseconds tickInterval{250};
    /// Seconds of a track that pass in one tick.
    static constexpr double secondsPerTick = 5.0;
    static constexpr std::size_t queueLength = 5;
    static constexpr std::size_t recentAlbumCount = 4;

    /// Plays tracks out of `library`, which must not be empty, in an order
    /// that `seed` decides.
    explicit PlayerSimulator(std::vector<SimulatedTrack> library, unsigned seed = 1);

    /// Update text that sets every value the player has, the queue included.
    std::string fullState() const;
    /// Moves on by one tick; the update text of what changed.
    std::string tick();
    /// The next tick sends the full state, as after an update was refused.
    void resync() { needsFullState = true; }

    const SimulatedTrack& currentTrack() const { return library[current]; }
    double position() const { return elapsed; }

private:
    class Update;

    std::size_t pick();
    void startTrack(std::size_t index);
    void nextTrack(Update& update);
    void turnVolume(Update& update);

    std::vector<SimulatedTrack> library;
    std::mt19937 random;
    std::size_t current = 0;
    std::deque<std::size_t> queue;
    std::deque<int> recentAlbums;
    double elapsed = 0.0;
    int volume = 12;
    bool playing = true;
    int pauseTicksLeft = 0;
    unsigned long ticks = 0;
    bool needsFullState = false;
};

/// Tracks out of the sample media library (examples/generate-media-library),
/// read through `store`: the first few hundred of its table tracks with
/// their artists' names. Made-up tracks if the database has no such tables.
std::vector<SimulatedTrack> simulatedTracks(ContentStore& store, const std::string& authority);

}  // namespace tethrix::service

#endif
