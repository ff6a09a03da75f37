// A PNG contact sheet: one thumbnail per frame in a grid, each in a coloured border that tells
// what happened to the frame, with its number underneath.
#pragma once

#include <string>

#include "output/image.h"

namespace vidra {
namespace tool {

class ContactSheet {
 public:
  enum class Mark {
    kClean,      // grey border: undamaged frame, decoded
    kConcealed,  // orange border: damaged frame that the decoder accepted (concealed)
    kFailed,     // red border: the decoder returned false (picture as written)
    kRefused,    // red border and a cross: no picture
  };

  // Room for `count` thumbnails of `thumb_width` x `thumb_height` in `columns` columns.
  ContactSheet(int count, int columns, int thumb_width, int thumb_height);

  // Puts frame `index` in its place; `picture` may be null for kRefused.
  void place(int index, const I420Image* picture, Mark mark);

  const RGBImage& image() const { return sheet_; }

 private:
  int columns_, thumb_width_, thumb_height_;
  RGBImage sheet_;
};

}  // namespace tool
}  // namespace vidra
