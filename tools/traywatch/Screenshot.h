#pragma once
// A picture of what the virtual display shows, for the demo and the desktop suite.

#include <string>

// Saves a PNG of the display cut to the windows on it (no window manager runs,
// so the bare root around them stays black), once they have had time to draw.
// Needs a QGuiApplication.
bool SaveScreenshot(const std::string& file);
