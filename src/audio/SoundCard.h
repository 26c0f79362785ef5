// Capture devices and their input volume.
#pragma once

#include <string>
#include <vector>

// The product names of the wave-in devices, by index.
std::vector<std::wstring> WaveInDeviceNames();

// Raises the input volume of every wave mixer whose name contains deviceName to 99 %. 1 when there was one, 0 when
// there was none, -2 when a control failed (those before it are set).
int SetMixerInputVolume(const wchar_t* deviceName);

// Raises the volume of every capture endpoint whose name contains deviceName to 0.9 (0.99 on some systems) and unmutes
// it. The index of the last one that was set, -1 when there was none.
int SetEndpointInputVolume(const wchar_t* deviceName);
