/* voxdevice.h: the flat C interface, for clients in any language. C99 and C++; it needs no other header of the library.
 *
 * Conventions
 *  - Functions and callbacks are __cdecl, exported undecorated. Only fixed-width integers, pointers and UTF-8 cross.
 *  - vox_result: 0 or more is the result, less is a VOX_ERROR_... No exception leaves the library.
 *  - Objects are handles: positive numbers, never used again. Zero, a handle that was destroyed, and one of another
 * kind are VOX_ERROR_HANDLE.
 *  - Texts in: UTF-8, zero-terminated; bytes that are no UTF-8 count as U+FFFD. Texts out go into the caller's buffer;
 *    the result is the bytes that they need, the zero included, and nothing is written where those do not fit: ask with
 *    NULL and 0. Nothing is ever freed on the other side.
 *  - Structures begin with `size`, which the caller sets to its own sizeof: no byte beyond is read or written.
 *  - Functions, events and errors are only added, and their numbers never change: skip events that you do not know. A
 *    program runs with every library whose vox_api_version() is VOX_API_VERSION of its header or more.
 *
 * Threads: any function may be called from any thread at any moment, a callback included, also while the object is
 * destroyed: it works, or says VOX_ERROR_HANDLE. Functions return at once unless said otherwise.
 *
 * Callbacks run on threads of the library, several at the same time (those with the audio of one object one after the
 * other), and should return soon: a device is not read until they do. So what waits for an answer of a device
 * (vox_record_start, vox_record_stop, vox_hub_set_mkey) can only time out in a callback of that same device. One that
 * has not returned two seconds after vox_hub_stop, vox_hub_close or vox_destroy has begun is ended there, in the middle
 * of the client's code. When those have returned none runs for that object any more, unless they were called in a
 * callback. No exception and no cancellation of a thread may pass through a callback or function.
 *
 * A program whose language cannot be called on other threads registers no callback, and asks: vox_next_event,
 * vox_next_text, vox_read. What has a callback is not queued for who asks. Queues are bounded (1,024 events, 256 texts,
 * 30 s of audio): the oldest give way, and VOX_EVENT_LOST tells how many, before the next event.
 *
 * The library is not to be unloaded, nor called in DllMain; destroy every object before the process ends.
 */
#ifndef VOXDEVICE_H
#define VOXDEVICE_H
#include <stdint.h> /* NOLINT(modernize-deprecated-headers): of C */

#if defined(_WIN32)
#define VOX_CALL __cdecl
#if defined(VOX_BUILDING)
#define VOX_API __declspec(dllexport)
#elif defined(VOX_STATIC)
#define VOX_API
#else
#define VOX_API __declspec(dllimport)
#endif
#else
#define VOX_CALL
#define VOX_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version, results ---- */
#define VOX_API_VERSION 1
typedef int32_t vox_result;
typedef int32_t vox_handle;
enum {
  VOX_OK = 0,
  VOX_ERROR_ARGUMENT = -1,       /* null, out of range, or a structure that is too small */
  VOX_ERROR_HANDLE = -2,         /* no object of this kind has this handle (any more) */
  VOX_ERROR_NO_DEVICE = -3,      /* no live device has this number */
  VOX_ERROR_BUSY = -4,           /* the device's firmware is being updated; another thread starts or stops it */
  VOX_ERROR_TIMEOUT = -5,        /* no answer within the time that the function names */
  VOX_ERROR_REFUSED = -6,        /* the device said no */
  VOX_ERROR_NOT_SUPPORTED = -7,  /* not in the device's list; not of this kind of object */
  VOX_ERROR_OTHER_FUNCTION = -8, /* the device has confirmed another function of its M key */
  VOX_ERROR_FILE = -9,           /* not there, not readable, or empty */
  VOX_ERROR_CHARACTER = -10,     /* of a URL, that cannot be sent */
  VOX_ERROR_NOT_STARTED = -11,   /* the recording has not begun; the log says why */
  VOX_ERROR_NOT_STOPPED = -12,   /* the driver has not stopped, or closed; tried again at the next start */
  VOX_ERROR_NOT_RESET = -13,     /* the driver has not given its buffers back; likewise */
  VOX_ERROR_END = -14,           /* the recording is over, and everything of it was read */
  VOX_ERROR_MEMORY = -15,
  VOX_ERROR_SYSTEM = -16 /* the system has no event or thread left */
};
VOX_API uint32_t VOX_CALL vox_api_version(void);              /* VOX_API_VERSION of the library */
VOX_API const char* VOX_CALL vox_version(void);               /* "0.1.0", static */
VOX_API const char* VOX_CALL vox_error_text(vox_result code); /* English, static; never NULL */

/* Ends what the object does and frees it. About 2 s at most, 0.1 s in a callback. A hub is closed first, silently: no
 * device is told to have gone, no button to be up. */
VOX_API vox_result VOX_CALL vox_destroy(vox_handle object);

/* ---- What the library tells, of all objects of the process ----
 * Have one hub: device numbers are those of a hub, and events do not say of which. */
enum {
  VOX_EVENT_CONNECT = 1,          /* device */
  VOX_EVENT_DISCONNECT = 2,       /* device */
  VOX_EVENT_MOUSE_CONNECT = 3,    /* device, {state}: 1 or 2 as the device sent it, 0 anything else */
  VOX_EVENT_VOICE = 4,            /* device, {operation}: 3 the voice channel is open, 2 refused, 0 closed */
  VOX_EVENT_DPI = 5,              /* device, {dots per inch, applied} */
  VOX_EVENT_MOUSE_STATE = 6,      /* device, {model, link, word 0, dots per inch, power level} */
  VOX_EVENT_DONGLE_STATE = 7,     /* device, {model, link, word, flag} */
  VOX_EVENT_POWER = 8,            /* device, {level, 0 to 255} */
  VOX_EVENT_URL = 9,              /* device, {accepted} */
  VOX_EVENT_UPDATE = 10,          /* device, {link, state}: see vox_hub_update */
  VOX_EVENT_UPDATE_PROGRESS = 11, /* -1, {done, total}: bytes, or 100 of 100 when an image is done */
  VOX_EVENT_MKEYS = 12,           /* device, {key, function}: the list is in vox_hub_mkey_list now */
  VOX_EVENT_MAIN_MENU = 13,       /* -1, {menu, posted}: 8 navigation, 16 screenshot */
  VOX_EVENT_MAIN_WINDOW = 14,     /* -1, {work}: 2 the working mode has changed */
  VOX_EVENT_AUDIO_END = 15,       /* -1, {handle}: vox_record_stop has ended a recording that had begun */
  VOX_EVENT_BUTTON = 16,          /* device, {button, what}: see below; of hubs */
  VOX_EVENT_LOST = 17,            /* -1, {what, count, handle}: 1 events, 2 texts, 3 samples of the handle were lost */
  VOX_EVENT_SPEECH_LOST = 18      /* device, {missing, late}: reports of speech; see vox_hub_speech */
};
/* Buttons, and what happens to them. */
enum { VOX_BUTTON_LEFT = 0, VOX_BUTTON_RIGHT = 1, VOX_BUTTON_KEY1 = 2, VOX_BUTTON_KEY2 = 3 };
enum {
  VOX_UP = 0,
  VOX_DOWN = 1,
  VOX_SHORT_PRESS = 2,        /* a Tern's right key */
  VOX_DOUBLE_CLICK = 3,       /* of the left key; the network can be reached */
  VOX_DOUBLE_CLICK_NO_NET = 4 /* it cannot */
};
typedef struct vox_event {
  uint32_t size;
  int32_t kind;   /* VOX_EVENT_... */
  int32_t device; /* number, or -1 */
  int32_t value[6];
} vox_event;
enum { VOX_TEXT_LOG = 1, VOX_TEXT_DEBUG = 2, VOX_TEXT_TRAY = 3 };
typedef void(VOX_CALL* vox_event_fn)(const vox_event* event, void* context);
/* kind: VOX_TEXT_...; category: of the log, or how the tray shows it (1: a message). */
typedef void(VOX_CALL* vox_text_fn)(int32_t kind, int32_t category, const char* text, void* context);
/* samples: signed 16 bits, mono, 16 kHz, valid during the call. (NULL, 0): the end, on the thread of vox_record_stop.
 */
typedef void(VOX_CALL* vox_audio_fn)(const int16_t* samples, int32_t count, void* context);
/* NULL takes a callback away. One that is just running may outlast its replacement; with its old context, then. */
VOX_API vox_result VOX_CALL vox_on_event(vox_event_fn function, void* context);
VOX_API vox_result VOX_CALL vox_on_text(vox_text_fn function, void* context);
/* 1: an event; 0: none within `milliseconds` (0xFFFFFFFF: for ever; 24 days at most otherwise). */
VOX_API vox_result VOX_CALL vox_next_event(vox_event* event, uint32_t milliseconds);
/* Bytes of the next text, or 0 as above. One that does not fit stays the next. */
VOX_API vox_result VOX_CALL vox_next_text(int32_t* kind, int32_t* category, char* text, int32_t capacity,
                                          uint32_t milliseconds);

/* ---- What passes between the library and the devices: for a flight recorder ----
 * All pointers are valid during the call. */
enum {
  VOX_OBSERVED_SENT = 0,         /* an output report is about to be written */
  VOX_OBSERVED_WRITE_FAILED = 1, /* the one that was sent last to this interface has not been taken; error */
  VOX_OBSERVED_RECEIVED = 2,     /* an input report */
  VOX_OBSERVED_READ_FAILED = 3,  /* mostly since the device has gone; error */
  VOX_OBSERVED_OPENED = 4,       /* a device of a current model twice, to read and to write; an older one once */
  VOX_OBSERVED_REFUSED = 5,      /* an interface of ours could not be opened or is of no use; error */
  VOX_OBSERVED_TOLD = 6          /* the library tells its client something; name, text, values */
};
typedef struct vox_observation {
  uint32_t size;
  int32_t kind;     /* VOX_OBSERVED_... */
  uint32_t thread;  /* the system's number of the calling thread */
  uint32_t tick;    /* milliseconds since the system's start, in steps of up to 16 */
  int32_t device;   /* number, or -1: none (yet) */
  uint32_t error;   /* the system's; 0: none, or an interface is of no use */
  const char* path; /* of the HID interface; NULL for what was told, and the next five are 0 */
  int32_t link;     /* 1 Bluetooth LE, 2 USB or a receiver: by the path */
  int32_t vendor;   /* 0: it could not be asked; so are the others */
  int32_t product;
  int32_t input_length; /* bytes of a report with its id */
  int32_t output_length;
  const uint8_t* report; /* with its id; NULL unless sent or received */
  int32_t report_length;
  const char* name;      /* of what was told: "log", "connect", "voice" ..., as VoxDevice/Observation.h lists them */
  const char* text;      /* or NULL */
  const int32_t* values; /* the call's numbers in the order of its arguments, but for the device's */
  int32_t value_count;
} vox_observation;
typedef void(VOX_CALL* vox_observation_fn)(const vox_observation* observation, void* context);
/* One for the process; NULL takes it away. Called before the client is told, several at the same time, and under the
 * rules for callbacks; its device waits meanwhile. There is no queue to ask: it would be full in a moment. */
VOX_API vox_result VOX_CALL vox_on_observation(vox_observation_fn function, void* context);

/* ---- Recording: of a hub (its work device's voice channel), a microphone or a speaker ---- */
/* Begins, and forgets what was not read of the recording before. A hub: VOX_ERROR_NO_DEVICE, _BUSY, _REFUSED, _TIMEOUT
 * after 1 s. Others: VOX_ERROR_NOT_STARTED. One that has not begun is over (VOX_ERROR_END). A hub's device is the one
 * that vox_hub_choose or a getter of its buttons has chosen. */
VOX_API vox_result VOX_CALL vox_record_start(vox_handle source);
/* Ends it; the rest of the audio, and the end, come before this returns, whatever it returns, and nothing after it. A
 * hub: VOX_ERROR_TIMEOUT when a device has not confirmed within 1 s; and what the callback takes. A microphone:
 * VOX_ERROR_NOT_STOPPED, VOX_ERROR_NOT_RESET; at most 3 s, and what the callback takes. A speaker likewise, without an
 * error. */
VOX_API vox_result VOX_CALL vox_record_stop(vox_handle source);
VOX_API vox_result VOX_CALL vox_on_audio(vox_handle source, vox_audio_fn function, void* context);
/* Samples, `capacity` at most, or 0: none within `milliseconds`. VOX_ERROR_END, again and again until the next start.
 */
VOX_API vox_result VOX_CALL vox_read(vox_handle source, int16_t* samples, int32_t capacity, uint32_t milliseconds);

/* ---- The hub: every current model, over USB or Bluetooth LE ----
 * Devices have numbers: positive, larger for one that was opened later. Commands for -1 go to every live device. A
 * device is live from its first answer until it sleeps or goes. What sends waits for the devices to take it, 1 s at
 * most for all together. */
VOX_API vox_result VOX_CALL vox_hub_create(void); /* a handle */
/* Starts to look for devices; the first are there about a second later, and told of (VOX_EVENT_CONNECT) a second after
 * that. Silent where the system has no thread for it. */
VOX_API vox_result VOX_CALL vox_hub_open(vox_handle hub);
/* What goes beyond the shipped rules, added up; none at first. Holds for devices that are opened from then on. */
enum {
  VOX_HARDENING_LONG_QUEUE = 1,   /* the system keeps 512 reports of a busy program, not 32 */
  VOX_HARDENING_DEAD_HANDLES = 2, /* a device that has not taken ten heartbeats in a row is opened anew */
  VOX_HARDENING_STALE_SPEECH = 4, /* speech while the voice channel is closed is left out, and stopped once */
  VOX_HARDENING_ALL = 7
};
VOX_API vox_result VOX_CALL vox_hub_harden(vox_handle hub, uint32_t what);
/* Ends discovery and every device's threads: no device is live any more, and none is told to have gone. They stay open,
 * and are not found again, until vox_hub_close. At most 2 s. */
VOX_API vox_result VOX_CALL vox_hub_stop(vox_handle hub);
/* Says good-bye to live devices, ends everything, forgets every device. At most 2 s. It can be opened again. */
VOX_API vox_result VOX_CALL vox_hub_close(vox_handle hub);
/* 1: discovery has ended and some device's read thread still runs (as the class has always said it). */
VOX_API vox_result VOX_CALL vox_hub_threads_closed(vox_handle hub);
VOX_API vox_result VOX_CALL vox_hub_is_connected(vox_handle hub); /* 1: a device was live when it last looked */
VOX_API vox_result VOX_CALL vox_hub_newest(vox_handle hub);       /* the live device opened last */
/* How many live devices there are; writes the numbers of the first `capacity`. */
VOX_API vox_result VOX_CALL vox_hub_devices(vox_handle hub, int32_t* numbers, int32_t capacity);
/* 1 Tern, 2 Wren, 3 Finch, 4 Robin, 5 Heron, 6 Egret, 7 Heron Plus, 8 Swift. */
VOX_API vox_result VOX_CALL vox_hub_model(vox_handle hub, int32_t device);
VOX_API vox_result VOX_CALL vox_hub_link(vox_handle hub, int32_t device); /* 1 Bluetooth LE, 2 USB, 3 receiver */
/* Reports of speech (15 ms each, a Tern's 20 ms) of a device since it was opened. */
typedef struct vox_speech {
  uint32_t size;
  uint32_t reports; /* that came */
  uint32_t late;    /* handed on more than 50 ms after their time */
  uint32_t missing; /* that never came although the device was recording; known about a second later */
  uint32_t unasked; /* that came while the voice channel was closed */
} vox_speech;
VOX_API vox_result VOX_CALL vox_hub_speech(vox_handle hub, int32_t device, vox_speech* speech);
VOX_API vox_result VOX_CALL vox_model_name(int32_t model, char* text, int32_t capacity);
/* The work device is the one that records; -1: none. */
VOX_API vox_result VOX_CALL vox_hub_choose(vox_handle hub, int32_t device);
/* Chooses the live device to which a sound-recording device belongs, by its display name: 1, or 0 (then none). */
VOX_API vox_result VOX_CALL vox_hub_choose_by_microphone(vox_handle hub, const char* name);
/* 1 when the work device is a Wren. Forgets an unread short press of the right key unless it is a Tern. */
VOX_API vox_result VOX_CALL vox_hub_work_is_wren(vox_handle hub);
/* Commands; a device whose firmware is being updated is skipped, silently. Answers are events. */
VOX_API vox_result VOX_CALL vox_hub_ask_mouse_state(vox_handle hub, int32_t device);
VOX_API vox_result VOX_CALL vox_hub_ask_dongle_state(vox_handle hub, int32_t device);
VOX_API vox_result VOX_CALL vox_hub_set_dpi(vox_handle hub, int32_t device, int32_t dpi); /* 0 to 32767 */
/* url: a to z, A to Z, 0 to 9, - = . / only. A device's report holds 32 or 56 of them; what is longer is not sent. */
VOX_API vox_result VOX_CALL vox_hub_set_url(vox_handle hub, int32_t device, const char* url);
/* key: 1 or 2; no model has a list for key 2. */
VOX_API vox_result VOX_CALL vox_hub_ask_mkeys(vox_handle hub, int32_t device, int32_t key);
/* The function (0 to 255) that the device named last: 2 a held button, 3 a screenshot. */
VOX_API vox_result VOX_CALL vox_hub_mkey(vox_handle hub, int32_t device, int32_t key);
/* How many functions the device has listed last; writes the first `capacity`. */
VOX_API vox_result VOX_CALL vox_hub_mkey_list(vox_handle hub, int32_t device, int32_t key, uint8_t* functions,
                                              int32_t capacity);
/* Up to 2.5 s for each addressed device; the result of the last. VOX_ERROR_NO_DEVICE, _BUSY, _NOT_SUPPORTED, _TIMEOUT,
 * _OTHER_FUNCTION. */
VOX_API vox_result VOX_CALL vox_hub_set_mkey(vox_handle hub, int32_t device, int32_t key, int32_t function);
/* Updates the firmware of one device. type: 1 the device itself with the file `first`, 2 its receiver with `second`,
 * 3 both (over Bluetooth LE the first alone); the other path may be NULL. Returns when the first request is sent.
 * Results are VOX_EVENT_UPDATE: for each image 2, 4 or 6 (refused to prepare, to open, to take data), 1, 3, 5, 7 or 9
 * (no answer within 3.1 s to these, to complete, to abort) or 8 (finished), with its link, and 0 when the device went;
 * at the end of all 11 once. A second call takes the place of the first. */
VOX_API vox_result VOX_CALL vox_hub_update(vox_handle hub, int32_t device, int32_t type, const char* first,
                                           const char* second);
/* VOX_DOWN or VOX_UP. Makes the device that last pressed it the work device, as vox_hub_left_pressed does. */
VOX_API vox_result VOX_CALL vox_hub_button(vox_handle hub, int32_t button);
VOX_API vox_result VOX_CALL vox_hub_left_pressed(vox_handle hub);      /* 1 once for each completed press */
VOX_API vox_result VOX_CALL vox_hub_right_short_press(vox_handle hub); /* 1 once after a Tern's short press */
VOX_API vox_result VOX_CALL vox_hub_click_mode(vox_handle hub);        /* 0 none, 1 double, 2 double without network */

/* HID interface paths, for diagnosis. */
typedef struct vox_path {
  uint32_t size;
  int32_t link; /* 1 Bluetooth LE, 2 USB */
  char vid[16];
  char pid[16];
  char instance[128];
} vox_path;
/* The path of the present HID interface `index`, from 0 on; 0: there are no more. */
VOX_API vox_result VOX_CALL vox_hid_path(int32_t index, char* text, int32_t capacity);
/* VOX_ERROR_ARGUMENT when the path is of neither form, or a part does not fit. */
VOX_API vox_result VOX_CALL vox_parse_hid_path(const char* path, vox_path* parsed);

/* ---- What client and library share ---- */
enum {
  VOX_SET_VOICE_CLICK_TIMES = 1, /* 2: a double click of the voice key opens the navigation; taken by hubs once */
  VOX_SET_DOUBLE_CLICK_MS = 2,   /* taken by hubs once */
  VOX_SET_LONG_DOWN = 3,
  VOX_SET_TOGGLE_BUTTON = 4,    /* the key layout of the older mouse: 1, 2 or any other */
  VOX_SET_HARDWARE = 5,         /* the working mode: 1 mouse, 2 laser pen */
  VOX_SET_HARDWARE_CHECKED = 6, /* whether it follows the older hardware */
  VOX_SET_HID_KIND = 7,         /* which older HID device sent the last key: 0 voice keyboard, 1 mouse */
  VOX_SET_RECORD_BY_NAME = 8,   /* whether the microphone is the one named VOX_TEXT_RECORD_NAME */
  VOX_SET_NETWORK = 9,          /* whether the network can be reached; keep it up to date */
  VOX_SET_WINDOWS_VERSION = 10  /* 0 volume by mixer, 2 speaker by timer, 5 full volume, 6 any other */
};
VOX_API vox_result VOX_CALL vox_set(int32_t setting, int32_t value);
VOX_API vox_result VOX_CALL vox_get(int32_t setting, int32_t* value);
enum {
  VOX_TEXT_BLUETOOTH_ID = 1,
  VOX_TEXT_BLUETOOTH_NAME = 2,
  VOX_TEXT_FORMER_ID = 3, /* of the older device; "no_ID" when there is none */
  VOX_TEXT_FORMER_NAME = 4,
  VOX_TEXT_RECORD_NAME = 5
};
VOX_API vox_result VOX_CALL vox_get_text(int32_t which, char* text, int32_t capacity);
VOX_API vox_result VOX_CALL vox_set_text(int32_t which, const char* text);

/* ---- A double-click detector of one's own ---- */
VOX_API vox_result VOX_CALL vox_click_create(void);                        /* a handle */
VOX_API vox_result VOX_CALL vox_click_key(vox_handle click, int32_t what); /* VOX_DOWN, VOX_UP, VOX_DOUBLE_CLICK */
VOX_API vox_result VOX_CALL vox_click_mode(vox_handle click);              /* as vox_hub_click_mode */
VOX_API vox_result VOX_CALL vox_click_clear(vox_handle click);

/* ---- Older hardware ----
 * VOX_FORMER_MOUSE is all of it; the others are its two sources alone. What one of these has not is
 * VOX_ERROR_NOT_SUPPORTED. */
enum { VOX_FORMER_MOUSE = 0, VOX_FORMER_USB = 1, VOX_FORMER_HID = 2 };
VOX_API vox_result VOX_CALL vox_former_create(int32_t kind);      /* a handle */
VOX_API vox_result VOX_CALL vox_former_init(vox_handle mouse);    /* looks for the Ql variant every 4 s */
VOX_API vox_result VOX_CALL vox_former_start(vox_handle mouse);   /* checks the keys */
VOX_API vox_result VOX_CALL vox_former_stop(vox_handle mouse);    /* no more */
VOX_API vox_result VOX_CALL vox_former_close(vox_handle mouse);   /* asks the threads to end */
VOX_API vox_result VOX_CALL vox_former_release(vox_handle mouse); /* ends them; at most 2 s */
VOX_API vox_result VOX_CALL vox_former_threads_closed(vox_handle mouse);
VOX_API vox_result VOX_CALL vox_former_is_checking(vox_handle mouse); /* VOX_FORMER_USB only */
VOX_API vox_result VOX_CALL vox_former_recheck(vox_handle mouse); /* 1 a mouse (or nothing), 2 a laser pen, 3 both */
VOX_API vox_result VOX_CALL vox_former_hardware(void);            /* 2 a laser pen alone, 1 anything else */
VOX_API vox_result VOX_CALL vox_former_sound_index(vox_handle mouse); /* VOX_ERROR_NO_DEVICE: no such function */
VOX_API vox_result VOX_CALL vox_former_revision(vox_handle mouse);    /* that of the last index: 0, 1; 2 none */
VOX_API vox_result VOX_CALL vox_former_button(vox_handle mouse, int32_t button); /* left or right */
VOX_API vox_result VOX_CALL vox_former_left_pressed(vox_handle mouse);
VOX_API vox_result VOX_CALL vox_former_click_mode(vox_handle mouse);
VOX_API vox_result VOX_CALL vox_former_imitate(vox_handle mouse, int32_t button); /* sends the system a release */

enum { VOX_PEN_SUBTITLE = 0, VOX_PEN_TRANSLATE = 1, VOX_PEN_CONTROL = 2, VOX_PEN_DISTURB = 3, VOX_PEN_CLOSE = 4 };
VOX_API vox_result VOX_CALL vox_pen_button(int32_t key);
VOX_API vox_result VOX_CALL vox_pen_imitate(int32_t key); /* subtitle and control only */
VOX_API vox_result VOX_CALL vox_keys_down(int32_t first,
                                          int32_t second); /* 1 when either virtual key (1 to 254) is down */

/* Follows the user between the older mouse, the pen and the hub's devices: VOX_SET_HARDWARE. Keeps both until it is
 * released or destroyed. paused: 1 no key may switch the mode now. */
VOX_API vox_result VOX_CALL vox_switch_create(void); /* a handle */
VOX_API vox_result VOX_CALL vox_switch_start(vox_handle mode, vox_handle mouse, vox_handle hub);
VOX_API vox_result VOX_CALL vox_switch_pause(vox_handle mode, int32_t paused);
VOX_API vox_result VOX_CALL vox_switch_stop(vox_handle mode);
VOX_API vox_result VOX_CALL vox_switch_release(vox_handle mode); /* at most 2 s */

/* ---- Microphones and the speaker: see Recording ---- */
typedef struct vox_choice {
  uint32_t size;
  int32_t index; /* wave-in index, -1 none */
  char name[128];
  char volume_name[128]; /* the name by which its volume is set */
  char rule[128];        /* why this one */
} vox_choice;
VOX_API vox_result VOX_CALL vox_microphone_create(void);                                      /* a handle */
VOX_API vox_result VOX_CALL vox_microphone_choice(vox_handle microphone, vox_choice* choice); /* what a start records */
/* Records, in laser-pen mode, the device with exactly this name. */
VOX_API vox_result VOX_CALL vox_microphone_pen_meeting(vox_handle microphone, const char* device_name);
/* The index of the first capture device of an older device; VOX_ERROR_NO_DEVICE. */
VOX_API vox_result VOX_CALL vox_sound_card_check(void);
VOX_API vox_result VOX_CALL vox_speaker_create(void); /* a handle */

#ifdef __cplusplus
}
#endif
#endif
