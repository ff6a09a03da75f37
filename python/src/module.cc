// vidra_mjpeg._core: the library's public API for Python. The package (vidra_mjpeg/__init__.py)
// wraps these functions in its Frame and Header types, enums and exceptions.
//
// Decoding holds the input's buffer export and the output's memoryview, and runs with the GIL
// released. The library's log lines are kept per thread by the sink installed at import and
// handed to the Python handler once the GIL is held again, so the sink never touches Python.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "vidra/log.h"
#include "vidra/mjpeg.h"
#include "vidra/splitter.h"

namespace py = pybind11;
using vidra::jpeg::DecodeOptions;
using vidra::jpeg::FrameHeader;
using vidra::jpeg::FrameReport;

namespace {

// ---- Log lines ---------------------------------------------------------------------------

struct LogRecord {
  int level;
  std::string channel;
  std::string file;
  int line;
  std::string text;
};

// Lines wait in the thread that logged them (the library logs in the caller's thread) until
// that thread next holds the GIL in this module. A thread that never comes back here (another
// user of the library in this process) keeps at most kMaxPendingRecords.
constexpr size_t kMaxPendingRecords = 64;
thread_local std::vector<LogRecord> t_pending;

void bufferingSink(void* /*user*/, int level, const char* channel, const char* file, int line,
                   const char* text) {
  if (t_pending.size() >= kMaxPendingRecords) return;
  const char* slash = std::strrchr(file, '/');
  try {
    t_pending.push_back({level, channel, slash ? slash + 1 : file, line, text});
  } catch (...) {
    // Out of memory: the line is lost rather than thrown through the library's C callers.
  }
}

// The Python callable that receives (level, channel, file, line, text); never destroyed, so
// that nothing runs at interpreter exit.
py::object* g_log_handler = new py::object();

void flushLog() {
  if (t_pending.empty()) return;
  std::vector<LogRecord> records;
  records.swap(t_pending);
  if (!*g_log_handler) return;
  for (const LogRecord& r : records) {
    try {
      (*g_log_handler)(r.level, r.channel, r.file, r.line, r.text);
    } catch (py::error_already_set& error) {
      error.discard_as_unraisable("vidra_mjpeg log handler");
    }
  }
}

// ---- Buffers -----------------------------------------------------------------------------

// A read-only view of any C-contiguous buffer, held until destroyed.
class InputBuffer {
 public:
  explicit InputBuffer(py::handle object) {
    if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_STRIDES) != 0) {
      PyErr_Clear();
      throw py::type_error(std::string("data must support the buffer protocol, not ") +
                           Py_TYPE(object.ptr())->tp_name);
    }
    if (!PyBuffer_IsContiguous(&view_, 'C')) {
      PyBuffer_Release(&view_);
      throw py::value_error("data must be a C-contiguous buffer");
    }
  }
  ~InputBuffer() { PyBuffer_Release(&view_); }
  InputBuffer(const InputBuffer&) = delete;
  InputBuffer& operator=(const InputBuffer&) = delete;

  const uint8_t* data() const { return static_cast<const uint8_t*>(view_.buf); }
  size_t size() const { return static_cast<size_t>(view_.len); }

 private:
  Py_buffer view_;
};

size_t i420Bytes(int64_t width, int64_t height) {
  if (width < 1 || height < 1) return 0;
  return static_cast<size_t>(width * height + 2 * (width / 2) * (height / 2));
}

// A 1-D uint8 array over the first `bytes` bytes of `out`, which must be writable and
// C-contiguous. The array keeps a memoryview of `out`, so a bytearray can't be resized under it.
py::array_t<uint8_t> outputArray(py::handle out, size_t bytes) {
  PyObject* view_object = PyMemoryView_FromObject(out.ptr());
  if (view_object == nullptr) {
    PyErr_Clear();
    throw py::type_error(std::string("out must support the buffer protocol, not ") +
                         Py_TYPE(out.ptr())->tp_name);
  }
  py::object memory = py::reinterpret_steal<py::object>(view_object);
  const Py_buffer* view = PyMemoryView_GET_BUFFER(view_object);
  if (view->readonly) throw py::value_error("out must be a writable buffer");
  if (!PyBuffer_IsContiguous(view, 'C')) {
    throw py::value_error("out must be a C-contiguous buffer");
  }
  if (static_cast<size_t>(view->len) < bytes) {
    throw py::value_error("out holds " + std::to_string(view->len) + " bytes; the frame needs " +
                          std::to_string(bytes));
  }
  return py::array_t<uint8_t>({static_cast<py::ssize_t>(bytes)}, {py::ssize_t{1}},
                              static_cast<uint8_t*>(view->buf), memory);
}

// ---- Decoding ----------------------------------------------------------------------------

py::tuple reportTuple(py::object planes, int width, int height, const FrameReport& report) {
  return py::make_tuple(std::move(planes), width, height, static_cast<int>(report.status),
                        static_cast<int>(report.reason), static_cast<int>(report.path),
                        report.total_mcus, report.valid_mcus);
}

FrameReport refusal(vidra::jpeg::RefusalReason reason) {
  FrameReport report;
  report.status = vidra::jpeg::FrameStatus::kRefused;
  report.reason = reason;
  return report;
}

// Returns (planes, width, height, status, reason, path, total_mcus, valid_mcus); planes is a
// 1-D uint8 array of the I420 picture (None when nothing was decoded).
py::tuple decode(py::handle data, py::handle out, bool fallback, int decoder) {
  if (decoder < 0 || decoder > static_cast<int>(vidra::jpeg::Decoder::kTurbo)) {
    throw py::value_error("unknown decoder");
  }
  DecodeOptions options;
  options.decoder = static_cast<vidra::jpeg::Decoder>(decoder);
  options.fallback = fallback;
  InputBuffer input(data);
  FrameReport report;

  FrameHeader header;
  if (!vidra::jpeg::readFrameHeader(input.data(), input.size(), &header) || header.width < 1 ||
      header.height < 1) {
    // No size to decode at: let the library say why, at a size of its own.
    uint8_t scratch[4];
    {
      py::gil_scoped_release release;
      vidra::jpeg::decodeFrame(input.data(), input.size(), 1, 1, scratch, 1, scratch + 1, 0,
                               scratch + 2, 0, options, &report);
    }
    flushLog();
    if (report.status != vidra::jpeg::FrameStatus::kRefused ||
        report.reason == vidra::jpeg::RefusalReason::kSizeMismatch) {
      report = refusal(vidra::jpeg::RefusalReason::kBadHeader);
    }
    return reportTuple(py::none(), 0, 0, report);
  }

  const int width = header.width, height = header.height;
  const size_t bytes = i420Bytes(width, height);
  // A damaged header claiming a huge size is refused before anything is allocated.
  if (!vidra::jpeg::frameSizePlausible(header, input.size())) {
    report = refusal(vidra::jpeg::RefusalReason::kTooLarge);
    report.header = header;
    return reportTuple(py::none(), width, height, report);
  }
  py::array_t<uint8_t> planes = out.is_none()
                                    ? py::array_t<uint8_t>(static_cast<py::ssize_t>(bytes))
                                    : outputArray(out, bytes);
  uint8_t* y = planes.mutable_data();
  const int cw = width / 2, ch = height / 2;
  uint8_t* u = y + static_cast<size_t>(width) * height;
  uint8_t* v = u + static_cast<size_t>(cw) * ch;
  {
    py::gil_scoped_release release;
    vidra::jpeg::decodeFrame(input.data(), input.size(), width, height, y, width, u, cw, v, cw,
                             options, &report);
  }
  flushLog();
  return reportTuple(std::move(planes), width, height, report);
}

// Returns the header's fields as a dict, or None when no frame header was found.
py::object readHeader(py::handle data) {
  InputBuffer input(data);
  FrameHeader h;
  if (!vidra::jpeg::readFrameHeader(input.data(), input.size(), &h)) return py::none();
  const int n = h.components < 4 ? h.components : 4;
  py::tuple ids(n), hf(n), vf(n);
  for (int i = 0; i < n; ++i) {
    ids[i] = py::int_(h.component_ids[i]);
    hf[i] = py::int_(h.h_factors[i]);
    vf[i] = py::int_(h.v_factors[i]);
  }
  py::dict d;
  d["width"] = h.width;
  d["height"] = h.height;
  d["sampling"] = static_cast<int>(h.subsampling);
  d["progressive"] = h.progressive;
  d["colour_space"] = static_cast<int>(h.colour_space);
  d["precision"] = h.precision;
  d["components"] = h.components;
  d["component_ids"] = ids;
  d["h_factors"] = hf;
  d["v_factors"] = vf;
  d["sof_marker"] = static_cast<int>(h.sof_marker);
  d["arithmetic"] = h.arithmetic;
  d["lossless"] = h.lossless;
  d["restart_interval"] = h.restart_interval;
  d["has_dht"] = h.has_dht;
  d["has_scan"] = h.has_scan;
  return std::move(d);
}

// ---- Streams -----------------------------------------------------------------------------

// The frames of one buffer as (offset, size) pairs; holds the buffer's export while it lives.
// Cutting is quick (linear in the bytes), so it keeps the GIL, and with it one caller at a time.
class BufferSplitter {
 public:
  explicit BufferSplitter(py::handle data)
      : input_(data), splitter_(input_.data(), input_.size()) {}

  py::tuple next() {
    vidra::jpeg::SplitFrame frame;
    if (!splitter_.next(&frame)) throw py::stop_iteration();
    return py::make_tuple(frame.offset, frame.size);
  }

 private:
  InputBuffer input_;
  vidra::jpeg::MJPEGSplitter splitter_;
};

// Bytes fed in pieces; next() hands out a copy of each frame whose cut is final, else None.
class StreamSplitter {
 public:
  void feed(py::handle data) {
    InputBuffer input(data);
    splitter_.feed(input.data(), input.size());
  }
  void finish() { splitter_.finish(); }
  py::object next() {
    vidra::jpeg::StreamFrame frame;
    if (!splitter_.next(&frame)) return py::none();
    return py::bytes(reinterpret_cast<const char*>(frame.data), frame.size);
  }

 private:
  vidra::jpeg::MJPEGStreamSplitter splitter_;
};

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "vidra-mjpeg's public API; use the vidra_mjpeg package instead.";
  // Unless the host set a sink of its own before (a GStreamer plugin, an application).
  vidra::setLogSinkIfUnset(bufferingSink, nullptr);

  m.def("decode", &decode, py::arg("data"), py::arg("out"), py::arg("fallback"),
        py::arg("decoder"));
  m.def("read_header", &readHeader, py::arg("data"));
  py::class_<BufferSplitter>(m, "BufferSplitter")
      .def(py::init<py::handle>(), py::arg("data"))
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &BufferSplitter::next);
  py::class_<StreamSplitter>(m, "StreamSplitter")
      .def(py::init<>())
      .def("feed", &StreamSplitter::feed, py::arg("data"))
      .def("finish", &StreamSplitter::finish)
      .def("next", &StreamSplitter::next);
  m.def(
      "i420_nbytes",
      [](int64_t width, int64_t height) {
        if (width < 1 || height < 1 || width > 65535 || height > 65535) {
          throw py::value_error("width and height must be 1..65535");
        }
        return i420Bytes(width, height);
      },
      py::arg("width"), py::arg("height"));
  m.def(
      "reason_text",
      [](int reason) {
        return vidra::jpeg::refusalReasonText(static_cast<vidra::jpeg::RefusalReason>(reason));
      },
      py::arg("reason"));
  m.def(
      "set_log_handler", [](py::object handler) { *g_log_handler = std::move(handler); },
      py::arg("handler"));
  m.def(
      "set_log_level",
      [](int level, const char* channel) { vidra::setLoggerLevel(channel, level); },
      py::arg("level"), py::arg("channel") = nullptr);
  m.def(
      "log_level", [](const char* channel) { return vidra::loggerLevel(channel); },
      py::arg("channel") = nullptr);
}
