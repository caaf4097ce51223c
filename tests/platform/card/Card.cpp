#include "tests/platform/card/Card.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

extern "C" {
#include <alsa/error.h>
}
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

namespace {

qmtest::Card card;

// Of the sound that is being played.
double position = 0;
std::int64_t lastLook = 0;

int prepare(snd_pcm_ioplug_t*) {
  position = 0;
  ++card.prepared;
  return 0;
}

int start(snd_pcm_ioplug_t*) {
  lastLook = card.clock.load()();
  ++card.started;
  return 0;
}

int stop(snd_pcm_ioplug_t*) { return 0; }

/// Where in the buffer it plays now.
snd_pcm_sframes_t pointer(snd_pcm_ioplug_t* io) {
  if (card.unplugged) return -ENODEV;
  if (io->state != SND_PCM_STATE_RUNNING) {
    return static_cast<snd_pcm_sframes_t>(position) %
           static_cast<snd_pcm_sframes_t>(io->buffer_size);
  }
  const std::int64_t now = card.clock.load()();
  position += static_cast<double>(now - lastLook) * 1e-9 * io->rate * card.speed;
  lastLook = now;
  const bool dry = card.runsDry.exchange(false) || position >= static_cast<double>(io->appl_ptr);
  if (dry) {
    card.heard += io->appl_ptr;
    return -EPIPE;
  }
  return static_cast<snd_pcm_sframes_t>(position) % static_cast<snd_pcm_sframes_t>(io->buffer_size);
}

snd_pcm_sframes_t transfer(snd_pcm_ioplug_t*, const snd_pcm_channel_area_t*, snd_pcm_uframes_t,
                           snd_pcm_uframes_t size) {
  card.written += size;
  return static_cast<snd_pcm_sframes_t>(size);
}

int closeCard(snd_pcm_ioplug_t* io) {
  std::free(io);
  --card.open;
  return 0;
}

const snd_pcm_ioplug_callback_t& callbacks() {
  static const snd_pcm_ioplug_callback_t table = [] {
    snd_pcm_ioplug_callback_t made = {};
    made.start = start;
    made.stop = stop;
    made.pointer = pointer;
    made.transfer = transfer;
    made.close = closeCard;
    made.prepare = prepare;
    return made;
  }();
  return table;
}

int openCard(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode) {
  if (card.busy) return -EBUSY;
  auto* const io = static_cast<snd_pcm_ioplug_t*>(std::calloc(1, sizeof(snd_pcm_ioplug_t)));
  if (io == nullptr) return -ENOMEM;
  io->version = SND_PCM_IOPLUG_VERSION;
  io->name = "card of a test";
  io->callback = &callbacks();
  io->poll_fd = -1;
  const int created = snd_pcm_ioplug_create(io, name, stream, mode);
  if (created < 0) {
    std::free(io);
    return created;
  }
  ++card.open;
  const unsigned access = SND_PCM_ACCESS_RW_INTERLEAVED, format = SND_PCM_FORMAT_S32;
  (void)snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, &access);
  (void)snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, &format);
  (void)snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, 2);
  (void)snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, 8000, 48'000);
  (void)snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 256, 1 << 20);
  (void)snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 1024, 1 << 22);
  *pcm = io->pcm;
  return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) qmtest::Card* testCard() { return &card; }

__attribute__((visibility("default"))) SND_PCM_PLUGIN_DEFINE_FUNC(testcard) {
  (void)root;
  (void)conf;
  return openCard(pcmp, name, stream, mode);
}

__attribute__((visibility("default"))) SND_PCM_PLUGIN_SYMBOL(testcard);
}
