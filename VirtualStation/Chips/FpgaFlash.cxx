/// Reads the image off the device, which is a FIFO that holds one page, so that a second write waits until
/// the first has been taken off and each one is seen by itself. A write that fails does so with EPIPE, where
/// the driver would say EIO.
#include "VirtualStation/Chips/FpgaFlash.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "VirtualStation/Process.h"

namespace station {
namespace {

constexpr const char* kDevice = "/dev/upgrade_fpga";
constexpr int kPieceSize = 4096;

/// A reading end that learns of the end of the next writer, not of earlier ones.
int OpenReader() {
  const int fifo = open(kDevice, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fifo < 0 || fcntl(fifo, F_SETPIPE_SZ, kPieceSize) < 0) {
    Halt(std::string("cannot serve ") + kDevice, errno);
  }
  return fifo;
}

}  // namespace

FpgaFlash::FpgaFlash() {
  Plug();
  m_thread = std::thread(&FpgaFlash::_Serve, this);
}

FpgaFlash::~FpgaFlash() {
  {
    const CLock lock(m_mutex);
    m_stop = true;
    m_wake.Ring();
  }
  m_thread.join();
  Unplug();
}

Bytes FpgaFlash::Memory() const {
  const CLock lock(m_mutex);
  return m_memory;
}

std::vector<std::size_t> FpgaFlash::Pieces() const {
  const CLock lock(m_mutex);
  return m_pieces;
}

void FpgaFlash::Unplug() {
  const CLock lock(m_mutex);
  _Close(true);
  m_wake.Ring();
}

void FpgaFlash::Plug() {
  const CLock lock(m_mutex);
  _Close(true);
  constexpr mode_t kOwner = 0600;
  if (mkfifo(kDevice, kOwner) != 0) {
    Halt(std::string("cannot make ") + kDevice, errno);
  }
  m_fifo = OpenReader();
  m_ended = true;
  m_stuck = false;
  m_wake.Ring();
}

void FpgaFlash::_Serve() {
  Bytes piece;
  CLock lock(m_mutex);
  while (!m_stop) {
    std::array<pollfd, 2> fds = {{m_wake.Watch(), {m_stuck ? -1 : m_fifo, POLLIN, 0}}};
    lock.Unlock();
    poll(fds.data(), fds.size(), -1);
    lock.Lock();
    m_wake.Quiet();
    if (m_fifo < 0 || m_stuck || fds[1].revents == 0) {
      continue;
    }
    piece.resize(kPieceSize);
    const ssize_t size = read(m_fifo, piece.data(), piece.size());
    if (size > 0) {
      piece.resize(static_cast<std::size_t>(size));
      _TakePiece(piece);
    } else if (size == 0) {
      m_conduct.Reach(Phase::FpgaEnd);
      m_ended = true;
      const int next = OpenReader();
      close(m_fifo);
      m_fifo = next;
    }
  }
}

void FpgaFlash::_TakePiece(const Bytes& piece) {
  if (m_ended) {
    m_memory.clear();
    m_pieces.clear();
    m_ended = false;
  }
  if (m_conduct.Hear(piece.size()) < piece.size()) {
    m_stuck = true;
    return;
  }
  m_memory.insert(m_memory.end(), piece.begin(), piece.end());
  m_pieces.push_back(piece.size());
  const auto faults = m_conduct.Reach(Phase::FpgaPiece);
  m_stuck = !faults;
  if (faults && (faults->count(FaultKind::Refuse) != 0 || faults->count(FaultKind::Unplug) != 0)) {
    _Close(faults->count(FaultKind::Unplug) != 0);
  }
}

/// Whoever writes from now on fails; with `unplug` the device is gone too.
void FpgaFlash::_Close(bool unplug) {
  if (unplug) {
    std::filesystem::remove(kDevice);
  }
  if (m_fifo >= 0) {
    close(m_fifo);
    m_fifo = -1;
  }
}

}  // namespace station
