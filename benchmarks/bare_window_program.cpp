// An empty window of this toolkit with the fonts of an installer's: what any program like that costs until its first
// frame is drawn.
#include <memory>
#include <vector>

#include <FL/Fl.H>
#include <FL/Fl_Box.H>
#include <FL/Fl_Double_Window.H>

namespace {

struct Font {
  Fl_Font face;
  Fl_Fontsize size;
};

// Of the title, texts, buttons, labels and small print.
constexpr Font fonts[] = {
    {FL_HELVETICA_BOLD, 28}, {FL_HELVETICA, 16}, {FL_HELVETICA_BOLD, 16}, {FL_HELVETICA_BOLD, 14}, {FL_HELVETICA, 14}};

class BareWindow : public Fl_Double_Window {
 public:
  BareWindow() : Fl_Double_Window(600, 380, "Empty") {
    int top = 20;
    for (const Font& font : fonts) {
      labels_.push_back(std::make_unique<Fl_Box>(20, top, 560, 40, "Empty"));
      labels_.back()->labelfont(font.face);
      labels_.back()->labelsize(font.size);
      top += 60;
    }
    end();
  }

  bool drawn() const { return drawn_; }

 private:
  void draw() override {
    Fl_Double_Window::draw();
    drawn_ = true;
  }

  std::vector<std::unique_ptr<Fl_Box>> labels_;
  bool drawn_ = false;
};

}  // namespace

int main() {
  BareWindow window;
  window.show();
  while (!window.drawn()) {
    Fl::wait();
  }
  return 0;
}
