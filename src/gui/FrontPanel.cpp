#include "gui/FrontPanel.h"

#include <gdk/gdkkeysyms.h>
#include <gtk/gtk.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/Host.h"
#include "processing/ProcessedRecord.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "server/WatchdogTick.h"
#include "system/Clock.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

#ifndef VR480_PIXMAP_DIR
#define VR480_PIXMAP_DIR "pixmaps"
#endif

// Glade-style support functions, defined below.
GtkWidget* lookup_widget(GtkWidget* widget, const gchar* widget_name);
void add_pixmap_directory(const gchar* directory);
GtkWidget* create_pixmap(GtkWidget* widget, const gchar* filename);
GdkPixbuf* create_pixbuf(const gchar* filename);
void glade_set_atk_action_description(AtkAction* action, const gchar* action_name, const gchar* description);

namespace {

// The logo, compiled in as well, so that an installed server without its pixmaps directory
// still shows it.
#include "gui/pixmaps/logo.xpm"

GtkWidget* window1 = nullptr;
CVr480Server* PanelServer = nullptr;
std::unique_ptr<CWatchdogTick> PanelWatchdog;  // the window's timer ticks it
std::vector<std::string> RegisteredNames;      // every name registered on window1, in build order
std::vector<std::string> PixmapDirectories;
std::atomic<long> GuiTid{0};

pthread_t GuiThread{};
bool bGuiThreadStarted = false;
std::atomic<bool> bWindowUp{false};

// The start handshake: the thread reports whether its window is up (1) or there is no
// display (-1); StartFrontPanel waits for it.
std::mutex StartLock;
std::condition_variable StartCond;
int StartResult = 0;

GdkColor zor_dblue = {0, 4096, 4096, 53248};
GdkColor zor_dred = {0, 53248, 4096, 4096};
GdkColor zor_black = {0, 0, 0, 0};

constexpr int kDriverMinimum = 9;
constexpr int kSynthesisMinimum = 48;
constexpr int kCfcMinimum = 10;

void ReportStart(int result) {
  {
    std::lock_guard<std::mutex> g(StartLock);
    StartResult = result;
  }
  StartCond.notify_all();
}

void Register(GtkWidget* owner, GtkWidget* widget, const char* name) {
  g_object_set_data_full(G_OBJECT(owner), name, g_object_ref(widget), g_object_unref);
  RegisteredNames.emplace_back(name);
}

GtkWidget* Widget(const char* name) { return window1 ? lookup_widget(window1, name) : nullptr; }

// Label texts change rarely; setting only changed ones keeps the refresh from relaying out
// and redrawing the window four times a second.
void SetLabel(const char* name, const std::string& text) {
  GtkWidget* w = Widget(name);
  if (!w || !GTK_IS_LABEL(w)) return;
  if (text != gtk_label_get_text(GTK_LABEL(w))) gtk_label_set_text(GTK_LABEL(w), text.c_str());
}

void SetColour(const char* name, const GdkColor& colour) {
  GtkWidget* w = Widget(name);
  if (!w) return;
  GtkRcStyle* style = gtk_widget_get_modifier_style(w);
  if ((style->color_flags[GTK_STATE_NORMAL] & GTK_RC_FG) && gdk_color_equal(&style->fg[GTK_STATE_NORMAL], &colour))
    return;
  gtk_widget_modify_fg(w, GTK_STATE_NORMAL, &colour);
}

void SetShown(const char* name, bool shown) {
  GtkWidget* w = Widget(name);
  if (!w) return;
  if (shown) gtk_widget_show(w);
  else gtk_widget_hide(w);
}

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// The newest processed record's status header (the card's header as the pipeline published
// it). False before the first record. The data replies patch headers in place under the slot
// lock, so the copy is taken under it too.
bool NewestHeader(CVr480Server& s, int back, uint8_t header[88]) {
  if (!s.ProcessedData) return false;
  int slot = static_cast<int>(s.ProcessedWriteIndex.load()) - 1 - back;
  while (slot < 0) slot += kProcessedRingSlots;
  const uint8_t* bytes = s.ProcessedData + static_cast<size_t>(slot) * kProcessedRecordBytes;
  std::lock_guard<std::mutex> g(s.RecordSlotLock[slot % CVr480Server::kRecordSlotLocks]);
  std::memcpy(header, bytes + kRecHeaderOffset, 88);
  return GetRecU32(bytes, kRecGranularityOffset) != 0;  // a slot the pipeline never wrote is all zero
}

GtkWidget* AddLabel(GtkWidget* fixed, const char* name, const char* text, int x, int y) {
  GtkWidget* label = gtk_label_new(text);
  gtk_widget_set_name(label, name);
  Register(window1, label, name);
  gtk_widget_show(label);
  gtk_fixed_put(GTK_FIXED(fixed), label, x, y);
  gtk_misc_set_alignment(GTK_MISC(label), 0, 0.5);
  return label;
}

GtkWidget* AddButton(GtkWidget* fixed, GtkAccelGroup* accel, const char* name, const char* text, guint key, int x,
                     int y) {
  GtkWidget* button = gtk_button_new_with_mnemonic(text);
  gtk_widget_set_name(button, name);
  Register(window1, button, name);
  gtk_widget_show(button);
  gtk_fixed_put(GTK_FIXED(fixed), button, x, y);
  gtk_widget_set_size_request(button, 46, 23);
  gtk_widget_add_accelerator(button, "clicked", accel, key, GDK_MOD1_MASK, GTK_ACCEL_VISIBLE);
  return button;
}

GtkWidget* AddSeparator(GtkWidget* fixed, GtkWidget* separator, const char* name, int x, int y, int w, int h) {
  Register(window1, separator, name);
  gtk_widget_show(separator);
  gtk_fixed_put(GTK_FIXED(fixed), separator, x, y);
  gtk_widget_set_size_request(separator, w, h);
  return separator;
}

GtkWidget* AddViewport(GtkWidget* fixed, const char* name, const char* labelName, const char* text, int x, int y,
                       int w, int h) {
  GtkWidget* viewport = gtk_viewport_new(nullptr, nullptr);
  Register(window1, viewport, name);
  gtk_widget_show(viewport);
  gtk_fixed_put(GTK_FIXED(fixed), viewport, x, y);
  gtk_widget_set_size_request(viewport, w, h);
  GtkWidget* label = gtk_label_new(text);
  Register(window1, label, labelName);
  gtk_widget_show(label);
  gtk_container_add(GTK_CONTAINER(viewport), label);
  gtk_misc_set_alignment(GTK_MISC(label), 0.5, 0.5);
  return label;
}

// Hides the mouse pointer over the window: the instrument has no mouse, and a stray pointer
// in the middle of the display looks like a fault.
void HidePointer() {
  static const gchar bits[] = {0};
  GdkPixmap* empty = gdk_bitmap_create_from_data(window1->window, bits, 1, 1);
  GdkColor black = {0, 0, 0, 0};
  GdkCursor* cursor = gdk_cursor_new_from_pixmap(empty, empty, &black, &black, 0, 0);
  gdk_window_set_cursor(window1->window, cursor);
  gdk_cursor_unref(cursor);
  g_object_unref(empty);
}

// The first line of the identification file is the instrument's title.
void LoadTitle() {
  std::ifstream in(Host().Path("instid"));
  if (!in) {
    std::printf("Error opening instrument ID File 'instid'\n");
    return;
  }
  std::string line;
  std::getline(in, line);
  if (line.size() > 49) line.resize(49);
  SetLabel("label_header", line);
}

void PinGuiThread() {
  std::printf("Setting GUI thread [PID: %ld] CPU affinity to CPU %d\n", ::syscall(SYS_gettid), 0);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  if (pthread_setaffinity_np(pthread_self(), sizeof set, &set) != 0) std::printf("pthread_setaffinity_np() failed.\n");
}

// The per-layer sensor count lines: each layer's newest record among the last four gives its
// counts; a layer not among them keeps the line it had.
void RefreshSensorCounts(CVr480Server& s) {
  static std::string lines[kMaxMuxLevel] = {"0\t0\t0\t0", "0\t0\t0\t0", "0\t0\t0\t0", "0\t0\t0\t0"};
  bool seen[kMaxMuxLevel] = {};
  for (int back = 0; back < kMaxMuxLevel; ++back) {
    uint8_t header[88];
    if (!NewestHeader(s, back, header)) break;
    const int layer = header[6] & 0x03;
    if (seen[layer]) continue;
    seen[layer] = true;
    const bool binned = (header[26] & 0x01) != 0;  // rebuilt by sensor binning
    std::string line;
    for (int ch = 0; ch < 4; ++ch) {
      uint16_t count;
      std::memcpy(&count, header + 16 + 2 * ch, sizeof count);
      char text[16];
      std::snprintf(text, sizeof text, binned ? "[%d]" : "%d", count);
      line += text;
      if (ch < 3) line += '\t';
    }
    lines[layer] = line;
  }
  static const char* const names[kMaxMuxLevel] = {"label_num_duts", "label_num_duts2", "label_num_duts3",
                                                  "label_num_duts4"};
  for (int layer = 0; layer < kMaxMuxLevel; ++layer) SetLabel(names[layer], lines[layer]);
  std::lock_guard<std::mutex> g(s.PanelTextsLock);
  for (int layer = 0; layer < kMaxMuxLevel; ++layer) s.PanelTexts.SensorCounts[layer] = lines[layer];
}

// Requests from other threads wait in this queue under its own lock; GLib's idle call only
// wakes the front-panel thread to run them.
std::mutex QueueLock;
std::vector<std::function<void()>> Queued;

gboolean RunQueued(gpointer) {
  std::vector<std::function<void()>> work;
  {
    std::lock_guard<std::mutex> g(QueueLock);
    work.swap(Queued);
  }
  for (auto& fn : work) fn();
  return FALSE;
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
// The toolkit's font loader starts a thread of its own and hands its caches over with
// synchronisation that ThreadSanitizer cannot see inside the uninstrumented libraries.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libfontconfig.so\n"
         "race:libpangoft2-1.0.so\n";
}
#endif

#if defined(__SANITIZE_ADDRESS__)
// The font loader keeps its caches for the life of the process and frees none of them at exit.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
#endif

// ---- Glade support functions -----------------------------------------------------------------

GtkWidget* lookup_widget(GtkWidget* widget, const gchar* widget_name) {
  GtkWidget* parent = widget;
  for (;;) {
    if (GTK_IS_MENU(widget)) parent = gtk_menu_get_attach_widget(GTK_MENU(widget));
    else parent = widget->parent;
    if (!parent) parent = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(widget), "GladeParentKey"));
    if (parent == nullptr) break;
    widget = parent;
  }
  auto* found = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(widget), widget_name));
  if (!found) g_warning("Widget not found: %s", widget_name);
  return found;
}

void add_pixmap_directory(const gchar* directory) { PixmapDirectories.insert(PixmapDirectories.begin(), directory); }

static std::string find_pixmap_file(const gchar* filename) {
  for (const std::string& dir : PixmapDirectories) {
    std::string path = dir + "/" + filename;
    if (g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) return path;
  }
  return {};
}

GdkPixbuf* create_pixbuf(const gchar* filename) {
  if (!filename || !filename[0]) return nullptr;
  const std::string path = find_pixmap_file(filename);
  GdkPixbuf* pixbuf = nullptr;
  if (!path.empty()) pixbuf = gdk_pixbuf_new_from_file(path.c_str(), nullptr);
  if (!pixbuf && std::strcmp(filename, "logo.xpm") == 0) pixbuf = gdk_pixbuf_new_from_xpm_data(logo_xpm);
  if (!pixbuf) g_warning("Couldn't find pixmap file: %s", filename);
  return pixbuf;
}

GtkWidget* create_pixmap(GtkWidget* widget, const gchar* filename) {
  GdkPixbuf* pixbuf = create_pixbuf(filename);
  if (!pixbuf) return gtk_image_new();
  GtkWidget* image = gtk_image_new_from_pixbuf(pixbuf);
  g_object_unref(pixbuf);
  return image;
}

void glade_set_atk_action_description(AtkAction* action, const gchar* action_name, const gchar* description) {
  const gint n = atk_action_get_n_actions(action);
  for (gint i = 0; i < n; ++i)
    if (!std::strcmp(atk_action_get_name(action, i), action_name)) atk_action_set_description(action, i, description);
}

// ---- Window ----------------------------------------------------------------------------------

void on_button_quit_clicked(GtkButton*, gpointer) {
  // -1: the front panel's own index; its reply lands in the internal caller's row, so it takes
  // that row's lock like every other internal command.
  std::lock_guard<std::recursive_mutex> g(PanelServer->InternalClientLock);
  char* reply = nullptr;
  unsigned length = 0;
  PanelServer->ProcessCmd(-1, "#QUIT!", &reply, &length);
}

void on_button_shell_clicked(GtkButton*, gpointer) {}

GtkWidget* create_window1() {
  RegisteredNames.clear();
  GtkAccelGroup* accel = gtk_accel_group_new();
  window1 = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_widget_set_name(window1, "window1");
  gtk_widget_set_size_request(window1, 640, 480);
  gtk_window_set_title(GTK_WINDOW(window1), "window1");
  gtk_window_set_resizable(GTK_WINDOW(window1), FALSE);
  Register(window1, window1, "window1");

  GtkWidget* notebook1 = gtk_notebook_new();
  Register(window1, notebook1, "notebook1");
  gtk_widget_show(notebook1);
  gtk_container_add(GTK_CONTAINER(window1), notebook1);
  gtk_notebook_set_show_tabs(GTK_NOTEBOOK(notebook1), FALSE);
  gtk_notebook_set_show_border(GTK_NOTEBOOK(notebook1), FALSE);

  GtkWidget* fixed1 = gtk_fixed_new();
  Register(window1, fixed1, "fixed1");
  gtk_widget_show(fixed1);
  gtk_container_add(GTK_CONTAINER(notebook1), fixed1);

  GtkWidget* image1 = create_pixmap(window1, "logo.xpm");
  Register(window1, image1, "image1");
  gtk_widget_show(image1);
  gtk_fixed_put(GTK_FIXED(fixed1), image1, 8, 6);
  gtk_widget_set_size_request(image1, 144, 90);

  GtkWidget* header = AddLabel(fixed1, "label_header", "Zorvane vr480", 168, 14);
  gtk_widget_modify_fg(header, GTK_STATE_NORMAL, &zor_dblue);
  PangoFontDescription* title = pango_font_description_from_string("Arial Bold Italic 24");
  gtk_widget_modify_font(header, title);
  pango_font_description_free(title);
  gtk_widget_set_size_request(header, 460, 40);

  gtk_widget_modify_fg(AddLabel(fixed1, "label_SN", "None", 170, 64), GTK_STATE_NORMAL, &zor_dblue);
  GtkWidget* hz = AddViewport(fixed1, "viewport2", "label_Hz", "1000 Hz", 480, 60, 148, 28);
  gtk_widget_modify_fg(hz, GTK_STATE_NORMAL, &zor_dred);

  AddSeparator(fixed1, gtk_hseparator_new(), "hseparator1", 0, 100, 640, 8);
  AddSeparator(fixed1, gtk_vseparator_new(), "vseparator1", 316, 108, 8, 160);
  AddSeparator(fixed1, gtk_hseparator_new(), "hseparator2", 0, 268, 640, 8);

  // Captions are registered as label1, label2, ...: only their texts matter.
  int caption = 0;
  auto row = [&](const char* text, const char* valueName, const char* value, int x, int valueX, int y) {
    std::string name = "label" + std::to_string(++caption);
    AddLabel(fixed1, name.c_str(), text, x, y);
    if (valueName) AddLabel(fixed1, valueName, value, valueX, y);
  };
  // Network and time, left of the upright rule.
  row("IP Address", "label_ip_address", "0.0.0.0", 16, 112, 114);
  row("Netmask", "label_netmask", "0.0.0.0", 16, 112, 140);
  row("DHCP", "label_dhcp", "Enabled", 16, 112, 166);
  row("# Clients", "label_num_clients", "0", 16, 112, 192);
  row("Time", "label_time", "---", 16, 112, 218);
  row("Source", "label_time_source", "---", 16, 112, 244);
  // Versions and temperature, right of it.
  row("FPGA Synthesis Release", "label_synthesis_release", "0", 336, 520, 114);
  row("Driver Release", "label_driver_release", "0", 336, 520, 140);
  row("Firmware Release", "label_firmware_release", "0", 336, 520, 166);
  row("CFC Build", "label_cfc_build", "0", 336, 520, 192);
  row("Internal Temperature", "label_temperature", "25 \u00b0C\n", 336, 520, 218);
  // Acquisition state below the lower rule: sensor counts left, modes right.
  row("DUTs", "label_num_duts", "0\t0\t0\t0", 16, 72, 286);
  AddLabel(fixed1, "label_num_duts2", "0\t0\t0\t0", 72, 310);
  AddLabel(fixed1, "label_num_duts3", "0\t0\t0\t0", 72, 334);
  AddLabel(fixed1, "label_num_duts4", "0\t0\t0\t0", 72, 358);
  row("Operating Mode", "label_operating_mode", "xStand-Alone", 336, 480, 286);
  row("Triggering Mode", "label_triggering_mode", "xUntriggered", 336, 480, 310);
  row("Auto Re-trigger", "label_auto_retrigger", "xN/A", 336, 480, 334);
  row("Mux Level (vr650)", "label_mux_level", "1", 336, 480, 358);

  AddViewport(fixed1, "viewport1", "label_msg", "Initializing...", 8, 444, 510, 28);
  GtkWidget* shell = AddButton(fixed1, accel, "button_shell", "Shell", GDK_KEY_s, 528, 446);
  GtkWidget* quit = AddButton(fixed1, accel, "button_quit", "Quit", GDK_KEY_q, 584, 446);
  g_signal_connect(shell, "clicked", G_CALLBACK(on_button_shell_clicked), nullptr);
  g_signal_connect(quit, "clicked", G_CALLBACK(on_button_quit_clicked), nullptr);

  GtkWidget* embedded = gtk_label_new("*** EMBBEDDED MODE ***");
  Register(window1, embedded, "label_embedded_mode");
  gtk_widget_show(embedded);
  gtk_container_add(GTK_CONTAINER(notebook1), embedded);
  gtk_label_set_justify(GTK_LABEL(embedded), GTK_JUSTIFY_CENTER);

  gtk_window_add_accel_group(GTK_WINDOW(window1), accel);
  return window1;
}

void set_notebook_page(int page) {
  if (GtkWidget* notebook = Widget("notebook1")) {
    if (gtk_notebook_get_current_page(GTK_NOTEBOOK(notebook)) != page)
      gtk_notebook_set_current_page(GTK_NOTEBOOK(notebook), page);
  }
}

void set_embedded_mode_label(const char* text) { SetLabel("label_embedded_mode", text); }

// ---- Refresh ---------------------------------------------------------------------------------

void update_gui() {
  CVr480Server& s = *PanelServer;
  if (s.bEmbeddedMode) {
    set_notebook_page(1);
    set_embedded_mode_label(s.GetStatusText().c_str());
    return;
  }
  set_notebook_page(0);
  CVr480Server::SPanelTexts t;

  double rate = s.Driver.Get2khzMode() ? 2000 : 1000;
  if (s.Driver.GetHwClkDivider_()) rate /= 2;
  const int divider = s.DataRateDivider != 0 ? static_cast<int>(s.DataRateDivider) : 1;
  const int level = s.MuxLevel > 0 ? s.MuxLevel.load() : 1;
  t.SweepRate = Format("%0.1f Hz", rate / divider / level);
  SetLabel("label_Hz", t.SweepRate);

  std::string gateway;
  GetIfConfig(t.IpAddress, t.Netmask, gateway);
  SetLabel("label_ip_address", t.IpAddress);
  SetLabel("label_netmask", t.Netmask);
  SetLabel("label_dhcp", bUseDhcp[CurrentNetworkConfig.load() == 1 ? 1 : 0] ? "Enabled" : "Disabled");
  t.TimeSource = bNtpRunning ? "NTP" : "System Clock";
  SetLabel("label_time_source", t.TimeSource);

  SetLabel("label_SN", std::string(s.SerialNumber, strnlen(s.SerialNumber, sizeof s.SerialNumber)));
  SetLabel("label_firmware_release", kServerRelease);
  uint8_t header[88] = {};
  if (!NewestHeader(s, 0, header))  // nothing published yet: the record the card delivered
    if (const auto last = s.LatestStatus.Get()) std::memcpy(header, &*last, sizeof header);
  t.DriverVersion = s.Driver.GetDriverVersion();
  t.FirmwareVersion = header[2];
  SetLabel("label_driver_release", std::to_string(t.DriverVersion));
  SetLabel("label_synthesis_release", std::to_string(t.FirmwareVersion));
  SetLabel("label_cfc_build", std::to_string(s.CfcVersion));
  SetColour("label_driver_release", t.DriverVersion < kDriverMinimum ? zor_dred : zor_black);
  SetColour("label_synthesis_release", t.FirmwareVersion < kSynthesisMinimum ? zor_dred : zor_black);
  SetColour("label_cfc_build", s.CfcVersion < kCfcMinimum ? zor_dred : zor_black);

  SetLabel("label_num_clients", std::to_string(s.Socket.GetNumClients()));
  SetLabel("label_msg", msg.Get());

  static const char* const modes[] = {"Stand-Alone", "Master", "End Slave", "Middle Slave"};
  const uint8_t flags = header[6];
  t.OperatingMode = modes[(flags >> 6) & 0x03];
  if (flags & 0x80) {  // a slave follows its master's triggering
    t.TriggerMode = t.TriggerState = "N/A";
  } else {
    const int trigger = (flags >> 4) & 0x03;
    if (trigger == 1 || trigger == 3) {
      t.TriggerMode = trigger == 1 ? "S/W Trigger" : "H/W Trigger";
      t.TriggerState = s.Driver.GetAutoReTrig() ? "On" : "Off";
    } else {
      t.TriggerMode = "Untriggered";
      t.TriggerState = "N/A";
    }
  }
  SetLabel("label_operating_mode", t.OperatingMode);
  SetLabel("label_triggering_mode", t.TriggerMode);
  SetLabel("label_auto_retrigger", t.TriggerState);

  SetLabel("label_mux_level", level == 4 ? "4" : level == 2 ? "2" : "1");
  SetShown("label_num_duts2", level >= 2);
  SetShown("label_num_duts3", level == 4);
  SetShown("label_num_duts4", level == 4);

  std::lock_guard<std::mutex> g(s.PanelTextsLock);
  t.DateTime = s.PanelTexts.DateTime;
  for (int i = 0; i < kMaxMuxLevel; ++i) t.SensorCounts[i] = s.PanelTexts.SensorCounts[i];
  s.PanelTexts = t;
}

int gui_periodic_function(void*) {
  CVr480Server& s = *PanelServer;
  PanelWatchdog->Tick();
  if (bUpdateGui.exchange(false)) update_gui();

  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  asctime_r(&local, stamp);
  stamp[std::strcspn(stamp, "\n")] = '\0';
  SetLabel("label_time", stamp);
  {
    std::lock_guard<std::mutex> g(s.PanelTextsLock);
    s.PanelTexts.DateTime = stamp;
  }

  uint8_t header[88] = {};
  NewestHeader(s, 0, header);
  int16_t temperature;
  std::memcpy(&temperature, header + 10, sizeof temperature);
  SetLabel("label_temperature", Format("%0.2f \u00b0C", temperature / 128.0));
  RefreshSensorCounts(s);

  if (!bGuiRun) {
    gtk_main_quit();
    return FALSE;
  }
  return TRUE;
}

// ---- Thread ----------------------------------------------------------------------------------

void* GUI_thread(void*) {
  CVr480Server& s = *PanelServer;
  GuiTid = ::syscall(SYS_gettid);
  pthread_setname_np(pthread_self(), "front panel");  // for top -H and /proc
  if (s.bPcm9361Board) PinGuiThread();
  // The server formats numbers in the C locale; the toolkit must not switch the process to
  // the user's locale.
  static bool bToolkitStarted = false;  // once per process; a later start finds it up
  if (!bToolkitStarted) gtk_disable_setlocale();
  bToolkitStarted = true;
  if (!gtk_init_check(nullptr, nullptr)) {
    const char* display = std::getenv("DISPLAY");
    const std::string name = display && display[0] ? std::string("'") + display + "'" : "(DISPLAY is not set)";
    std::printf("Front panel: cannot open display %s; the server runs without the window.\n", name.c_str());
    std::fflush(stdout);
    ReportStart(-1);
    return nullptr;
  }
  PixmapDirectories.clear();
  add_pixmap_directory(VR480_PIXMAP_DIR);
  add_pixmap_directory(Host().Path("pixmaps").c_str());

  create_window1();
  LoadTitle();
  PanelWatchdog = std::make_unique<CWatchdogTick>(s);
  g_timeout_add(250, gui_periodic_function, nullptr);
  gtk_widget_show(window1);
  HidePointer();

  bGuiRun = true;
  bGuiRunning = true;
  bUpdateGui = true;
  bWindowUp = true;
  ReportStart(1);

  Host().Run("/usr/X11R6/bin/xset -d :0 s off");
  Host().Run("/usr/X11R6/bin/xset -d :0 s noblank");
  Host().Run("/usr/X11R6/bin/xset -d :0 -dpms");
  std::this_thread::sleep_for(std::chrono::seconds(2));
  gtk_main();

  // The window goes with its loop, so a later start in the same process builds a fresh one.
  bWindowUp = false;
  RunQueued(nullptr);  // requests that came too late are answered without running
  gtk_widget_destroy(window1);
  window1 = nullptr;
  while (gtk_events_pending()) gtk_main_iteration();
  PanelWatchdog.reset();
  bGuiRunning = false;
  return nullptr;
}

int StartFrontPanel(CVr480Server& server) {
  PanelServer = &server;
  {
    std::lock_guard<std::mutex> g(StartLock);
    StartResult = 0;
  }
  if (const int err = pthread_create(&GuiThread, nullptr, GUI_thread, nullptr); err != 0) return err;
  bGuiThreadStarted = true;
  std::unique_lock<std::mutex> g(StartLock);
  StartCond.wait(g, [] { return StartResult != 0; });
  return StartResult == 1 ? 0 : -1;
}

void EndFrontPanel() {
  if (!bGuiThreadStarted) return;
  bGuiThreadStarted = false;
  if (bGuiRunning) pthread_detach(GuiThread);  // stuck in its loop: left to the process's exit
  else pthread_join(GuiThread, nullptr);
}

bool FrontPanelServicesWatchdog() { return bWindowUp; }

// ---- Inspection --------------------------------------------------------------------------------

bool FrontPanelInvoke(const std::function<void()>& fn, std::chrono::milliseconds timeout) {
  if (!bWindowUp) return false;
  struct SDone {
    std::mutex Lock;
    std::condition_variable Cond;
    bool bDone = false;
  };
  auto done = std::make_shared<SDone>();
  {
    std::lock_guard<std::mutex> g(QueueLock);
    Queued.emplace_back([fn, done] {
      if (bWindowUp) fn();
      std::lock_guard<std::mutex> g(done->Lock);
      done->bDone = true;
      done->Cond.notify_all();
    });
  }
  g_idle_add(RunQueued, nullptr);  // thread-safe; runs the queue on the front-panel thread
  std::unique_lock<std::mutex> g(done->Lock);
  return done->Cond.wait_for(g, timeout, [&] { return done->bDone; });
}

SPanelSnapshot FrontPanelSnapshot(bool refreshFirst) {
  SPanelSnapshot snapshot;
  FrontPanelInvoke([&] {
    if (!window1) return;
    if (refreshFirst) update_gui();
    for (const std::string& name : RegisteredNames) {
      GtkWidget* w = Widget(name.c_str());
      if (!w) continue;
      SPanelWidget& out = snapshot.Widgets[name];
      out.Type = G_OBJECT_TYPE_NAME(w);
      out.bVisible = GTK_WIDGET_VISIBLE(w);
      if (GTK_IS_LABEL(w)) out.Text = gtk_label_get_text(GTK_LABEL(w));
      if (GTK_IS_BUTTON(w)) out.Text = gtk_button_get_label(GTK_BUTTON(w));
      GtkRcStyle* style = gtk_widget_get_modifier_style(w);
      if (style->color_flags[GTK_STATE_NORMAL] & GTK_RC_FG) {
        const GdkColor& c = style->fg[GTK_STATE_NORMAL];
        char text[16];
        std::snprintf(text, sizeof text, "#%04x%04x%04x", c.red, c.green, c.blue);
        out.Colour = text;
      }
    }
    snapshot.Page = gtk_notebook_get_current_page(GTK_NOTEBOOK(Widget("notebook1")));
    gtk_window_get_size(GTK_WINDOW(window1), &snapshot.Width, &snapshot.Height);
  });
  return snapshot;
}

bool FrontPanelClick(const std::string& name) {
  bool clicked = false;
  FrontPanelInvoke([&] {
    GtkWidget* w = Widget(name.c_str());
    if (w && GTK_IS_BUTTON(w)) {
      gtk_button_clicked(GTK_BUTTON(w));
      clicked = true;
    }
  });
  return clicked;
}

bool FrontPanelScreenshot(const std::string& pngPath) {
  bool saved = false;
  FrontPanelInvoke([&] {
    if (!window1 || !window1->window) return;
    while (gtk_events_pending()) gtk_main_iteration();
    gdk_window_process_all_updates();
    gdk_flush();
    int w = 0, h = 0;
    gdk_drawable_get_size(window1->window, &w, &h);
    GdkPixbuf* pixels = gdk_pixbuf_get_from_drawable(nullptr, window1->window, nullptr, 0, 0, 0, 0, w, h);
    if (!pixels) return;
    saved = gdk_pixbuf_save(pixels, pngPath.c_str(), "png", nullptr, nullptr);
    g_object_unref(pixels);
  });
  return saved;
}

double FrontPanelThreadCpuSeconds() {
  const long tid = GuiTid;
  if (tid == 0) return 0;
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  // Fields after the command name: state is field 3; utime and stime are fields 14 and 15.
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
