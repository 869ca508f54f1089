// The panel with one and with twenty rows, offscreen on the simulated audio system: a full
// re-render after a change of the master volume (the render, its layout and a paint of the
// widget), and a grab of the whole panel into a picture. Twenty rows are reported as a ratio
// to one row of the same run.
//
//   panel_render_bench [benchmark flags]
#include <benchmark/benchmark.h>

#include "MedianReporter.h"

#include <QApplication>
#include <QFont>
#include <QPixmap>
#include <QStyleFactory>
#include <cstdio>
#include <memory>
#include <string>

#include "ui/MenuBarView.h"
#include "ui/PanelTestSupport.h"

namespace {

using namespace quellix;

// The views' test fixture, driven by hand instead of by GoogleTest.
class Panel final : public ui::testing::ViewTest {
 public:
  explicit Panel(int rows) {
    SetUp();
    for (int index = 0; index < rows; ++index) {
      addPlayingApp(1000 + index, "org.example.App" + std::to_string(index + 1),
                    "App " + std::to_string(index + 1));
    }
    AppState& app = start();
    view = std::make_unique<ui::MenuBarView>(app);
    view->show();
    settle();
  }
  ~Panel() override {
    view.reset();
    TearDown();
  }
  void TestBody() override {}

  // One change the whole panel re-renders for, and the events it causes.
  void rerender() {
    volumeStep_ = !volumeStep_;
    state->systemVolume().setVolume(volumeStep_ ? 0.4 : 0.6);
    queue.drain();
    view->repaint();
    QApplication::processEvents();
  }

  std::unique_ptr<ui::MenuBarView> view;

 private:
  bool volumeStep_ = false;
};

void BM_Rerender(benchmark::State& state) {
  Panel panel(static_cast<int>(state.range(0)));
  const int before = panel.view->renderCount();
  for (auto _ : state) {
    panel.rerender();
  }
  const int renders = panel.view->renderCount() - before;
  if (renders < static_cast<int>(state.iterations())) {
    state.SkipWithError("the panel did not re-render for every change");
  }
  state.counters["height"] = panel.view->height();
}

void BM_Grab(benchmark::State& state) {
  Panel panel(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    QPixmap picture = panel.view->grab();
    benchmark::DoNotOptimize(picture);
  }
}

BENCHMARK(BM_Rerender)->Arg(1)->Arg(20)->Unit(benchmark::kMicrosecond)->Repetitions(5);
BENCHMARK(BM_Grab)->Arg(1)->Arg(20)->Unit(benchmark::kMicrosecond)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
  QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
  benchmark::Initialize(&argc, argv);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const char* name : {"BM_Rerender", "BM_Grab"}) {
    const std::string one = std::string(name) + "/1";
    const std::string twenty = std::string(name) + "/20";
    if (reporter.nanoseconds.contains(one) && reporter.nanoseconds.contains(twenty)) {
      std::printf("%s: twenty rows %.3f ms, %.2f times one row\n", name,
                  reporter.nanoseconds[twenty] / 1e6,
                  reporter.nanoseconds[twenty] / reporter.nanoseconds[one]);
    }
  }
  benchmark::Shutdown();
  return 0;
}
