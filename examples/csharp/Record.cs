// Records what a device hears while its voice key is held: Record FILE.wav. For .NET and Mono.
using System;
using System.IO;
using System.Runtime.InteropServices;

[StructLayout(LayoutKind.Sequential)]
struct VoxEvent {
  public uint Size;
  public int Kind, Device;
  [MarshalAs(UnmanagedType.ByValArray, SizeConst = 6)] public int[] Value;
}

static class Vox {
  const string Library = "VoxDeviceC";
  const CallingConvention C = CallingConvention.Cdecl;
  [DllImport(Library, CallingConvention = C)] public static extern int vox_hub_create();
  [DllImport(Library, CallingConvention = C)] public static extern int vox_hub_open(int hub);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_hub_choose(int hub, int device);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_record_start(int source);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_record_stop(int source);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_read(int source, short[] samples, int capacity, uint ms);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_next_event(ref VoxEvent next, uint ms);
  [DllImport(Library, CallingConvention = C)] public static extern int vox_destroy(int handle);
  [DllImport(Library, CallingConvention = C)] public static extern IntPtr vox_error_text(int code);

  public static int Check(int result) {
    if (result < 0) throw new Exception(Marshal.PtrToStringAnsi(vox_error_text(result)));
    return result;
  }
}

static class Record {
  const int Button = 16, Left = 0, Up = 0, Down = 1;

  // The device whose voice key goes down (or up), or -1 when none does within so many milliseconds.
  static int VoiceKey(int what, uint ms) {
    for (;;) {
      var next = new VoxEvent { Size = (uint)Marshal.SizeOf(typeof(VoxEvent)), Value = new int[6] };
      if (Vox.Check(Vox.vox_next_event(ref next, ms)) == 0) return -1;
      if (next.Kind == Button && next.Value[0] == Left && next.Value[1] == what) return next.Device;
    }
  }

  static int Main(string[] arguments) {
    string path = arguments.Length > 0 ? arguments[0] : "recording.wav";
    int hub = Vox.Check(Vox.vox_hub_create());
    Vox.Check(Vox.vox_hub_open(hub));
    Console.Error.WriteLine("Hold the voice key of a device and speak.");
    Vox.Check(Vox.vox_hub_choose(hub, VoiceKey(Down, 60000)));
    Vox.Check(Vox.vox_record_start(hub));
    var speech = new MemoryStream();
    var block = new short[4096];
    for (int count = 0; count >= 0;) {
      count = Vox.vox_read(hub, block, block.Length, 100);
      for (int i = 0; i < count; ++i) speech.Write(BitConverter.GetBytes(block[i]), 0, 2);
      if (VoiceKey(Up, 0) >= 0) Vox.vox_record_stop(hub);  // what is left is still read
    }
    Vox.vox_destroy(hub);
    using (var wav = new BinaryWriter(File.Create(path))) {
      wav.Write("RIFF".ToCharArray()); wav.Write((int)(36 + speech.Length)); wav.Write("WAVEfmt ".ToCharArray());
      wav.Write(16); wav.Write((short)1); wav.Write((short)1); wav.Write(16000); wav.Write(32000);
      wav.Write((short)2); wav.Write((short)16); wav.Write("data".ToCharArray()); wav.Write((int)speech.Length);
      wav.Write(speech.ToArray());
    }
    Console.WriteLine(path + ": " + speech.Length / 32000.0 + " s");
    return 0;
  }
}
