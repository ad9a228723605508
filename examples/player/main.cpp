#include <glib-unix.h>
#include <gst/gst.h>
#include <orbiq/orbiq.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string_view>

/// A media player that counts each start of a playback:
///
///     ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ orbiq-player [--silent] URI...
///
/// It plays one after the other, ends with 1 if one could not be played, and runs the library's
/// work on GLib's main loop. `--silent` plays into nothing, as fast as it can.
namespace {

constexpr std::chrono::seconds kPatience{5};

gboolean runLibrary(gint /*descriptor*/, GIOCondition /*condition*/, gpointer /*data*/) {
  orbiq::MainLoop::mainLoop().runPending();
  return G_SOURCE_CONTINUE;
}

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

class Player {
 public:
  Player(GMainLoop* loop, bool isSilent)
      : _loop(loop),
        _pipeline(gst_element_factory_make("playbin", nullptr)),
        _tagger(orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("PLAYER")) {
    if (!isUsable()) return;
    for (const char* sink : {"audio-sink", "video-sink"}) {
      if (isSilent) {
        g_object_set(_pipeline, sink, gst_element_factory_make("fakesink", nullptr), nullptr);
      }
    }
    GstBus* const bus = gst_element_get_bus(_pipeline);
    gst_bus_add_watch(bus, &Player::take, this);
    gst_object_unref(bus);
  }
  ~Player() {
    if (!isUsable()) return;
    gst_element_set_state(_pipeline, GST_STATE_NULL);
    gst_object_unref(_pipeline);
  }
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  bool isUsable() const { return _pipeline != nullptr && _tagger != nullptr; }

  /// Returns at the end of the medium; false if it could not be played.
  bool play(const char* uri) {
    _isCounted = _hasFailed = false;
    gst_element_set_state(_pipeline, GST_STATE_NULL);
    g_object_set(_pipeline, "uri", uri, nullptr);
    if (gst_element_set_state(_pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
      return false;
    }
    g_main_loop_run(_loop);
    return !_hasFailed;
  }

 private:
  static gboolean take(GstBus* /*bus*/, GstMessage* message, gpointer player) {
    static_cast<Player*>(player)->take(message);
    return G_SOURCE_CONTINUE;
  }

  void take(GstMessage* message) {
    switch (GST_MESSAGE_TYPE(message)) {
      case GST_MESSAGE_STATE_CHANGED:
        if (message->src == GST_OBJECT(_pipeline)) countStart(message);
        break;
      case GST_MESSAGE_ERROR:
        tell(message);
        _hasFailed = true;
        g_main_loop_quit(_loop);
        break;
      case GST_MESSAGE_EOS:
        g_main_loop_quit(_loop);
        break;
      default:
        break;
    }
  }

  /// A medium that goes on after a pause has started already.
  void countStart(GstMessage* message) {
    GstState now = GST_STATE_NULL;
    gst_message_parse_state_changed(message, nullptr, &now, nullptr);
    if (now != GST_STATE_PLAYING || _isCounted) return;
    _isCounted = true;
    _tagger->sendHit();  // returns at once: the picture does not wait
  }

  static void tell(GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::cerr << error->message << "\n";
    g_error_free(error);
  }

  GMainLoop* const _loop;
  GstElement* const _pipeline;
  const std::shared_ptr<orbiqAudienceTagger> _tagger;
  bool _isCounted = false;
  bool _hasFailed = false;
};

}  // namespace

int main(int count, char** arguments) {
  gst_init(&count, &arguments);
  const bool isSilent = count > 1 && std::string_view(arguments[1]) == "--silent";
  orbiq::HostApplication::describe({
      .bundleIdentifier = "tv.example.player",
      .bundleName = "Player",
      .shortVersion = "4.2",
  });
  // Before the first use of the library, so that it starts no loop thread of its own.
  const int library = orbiq::MainLoop::mainLoop().adopt();
  if (library < 0) return 1;
  g_unix_fd_add(library, G_IO_IN, runLibrary, nullptr);

  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  g_unix_signal_add(SIGINT, quit, loop);
  bool isWell = true;
  {
    Player player(loop, isSilent);
    isWell = player.isUsable();
    for (int i = isSilent ? 2 : 1; isWell && i < count; ++i) isWell = player.play(arguments[i]);
  }
  g_main_loop_unref(loop);
  orbiqAgent::sharedAgent().flush(kPatience);  // the last start may just have been
  return isWell ? 0 : 1;
}
