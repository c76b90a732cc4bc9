// The front panel: the instrument's 640 x 480 status window, on its local display (or on a
// workstation's desktop). It shows the identity, network settings, versions, acquisition
// state, per-channel sensor counts, time and internal temperature, and its 250 ms timer also
// services the acquisition watchdog (CWatchdogTick) while the window runs.
//
// Everything the toolkit touches lives on the front-panel thread. Other threads never call
// into it: they change the server record, the network globals or `msg` and set bUpdateGui;
// the timer picks the change up. The few requests from outside (the tests' snapshots and
// button presses) are queued onto the front-panel thread through GLib's thread-safe idle
// queue and waited for.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>

class CVr480Server;

// Starts the front-panel thread for `server` (after Init, before Run) and waits until it has
// opened the display and shown its window, or found that there is no display. Returns 0 when
// the window runs (its timer then ticks the acquisition watchdog, and Run starts no tick of
// its own); -1 when there is no display (one console line, "Front panel: cannot open display
// ...; the server runs without the window."; the server goes on without it); or the error
// code of a thread that could not be created.
int StartFrontPanel(CVr480Server& server);

// After Run's stop path cleared bGuiRun and saw bGuiRunning fall: reaps the thread. A thread
// still inside its main loop (a stuck display) is left to the process's exit.
void EndFrontPanel();

// True from a successful StartFrontPanel until the window's main loop has ended.
bool FrontPanelServicesWatchdog();

// ---- Thread body and toolkit callbacks ---------------------------------------------------------
void* GUI_thread(void* arg);
int gui_periodic_function(void* arg);  // the 250 ms tick; nonzero keeps the timer
void update_gui();                     // the full refresh
void set_notebook_page(int page);
void set_embedded_mode_label(const char* text);

// ---- Inspection (tests, screenshots) ---------------------------------------------------------
// Runs `fn` on the front-panel thread and waits for it; false when the window is not running
// or `fn` did not run within `timeout`.
bool FrontPanelInvoke(const std::function<void()>& fn,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));

// What one registered widget shows.
struct SPanelWidget {
  std::string Type;         // toolkit class name ("GtkLabel", "GtkButton", ...)
  std::string Text;         // a label's text; a button's label
  bool bVisible = false;
  std::string Colour;       // a label's foreground as "#rrrrggggbbbb" (16-bit channels), "" if unset
};
struct SPanelSnapshot {
  std::map<std::string, SPanelWidget> Widgets;  // by registered name
  int Page = -1;                                // notebook page shown
  int Width = 0, Height = 0;                    // window size
};

// Takes the widget tree's state on the front-panel thread (after a full refresh when
// `refreshFirst`). Empty when the window is not running.
SPanelSnapshot FrontPanelSnapshot(bool refreshFirst = true);
// Emits "clicked" on the registered button `name` on the front-panel thread.
bool FrontPanelClick(const std::string& name);
// Saves the window's pixels as a PNG file. False when the window is not running or the file
// could not be written.
bool FrontPanelScreenshot(const std::string& pngPath);
// CPU time the front-panel thread has used so far, in seconds (from the kernel's accounting).
double FrontPanelThreadCpuSeconds();
