// Everything a client includes.
#pragma once

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/Hardening.h"
#include "VoxDevice/KzCheckDoubleClick.h"
#include "VoxDevice/Observation.h"
#include "VoxDevice/SoftModeSwitch.h"
#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "VoxDevice/VoxRecord.h"
#include "VoxDevice/VoxSpeakerRecord.h"
#include "VoxDevice/types.h"
