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

  static int AwaitVoiceKey(int what) {
    for (;;) {
      var next = new VoxEvent { Size = (uint)Marshal.SizeOf(typeof(VoxEvent)), Value = new int[6] };
      if (Vox.Check(Vox.vox_next_event(ref next, 60000)) == 0) throw new Exception("nobody has used a voice key for a minute");
      if (next.Kind == Button && next.Value[0] == Left && next.Value[1] == what) return next.Device;
    }
  }

  static int Main(string[] arguments) {
    string path = arguments.Length > 0 ? arguments[0] : "recording.wav";
    int hub = Vox.Check(Vox.vox_hub_create());
    Vox.Check(Vox.vox_hub_open(hub));
    Console.Error.WriteLine("Hold the voice key of a device and speak.");
    Vox.Check(Vox.vox_hub_choose(hub, AwaitVoiceKey(Down)));
    Vox.Check(Vox.vox_record_start(hub));
    AwaitVoiceKey(Up);
    Vox.vox_record_stop(hub);
    var speech = new MemoryStream();
    var block = new short[4096];
    for (int count; (count = Vox.vox_read(hub, block, block.Length, 1000)) > 0;) {
      var bytes = new byte[2 * count];
      Buffer.BlockCopy(block, 0, bytes, 0, bytes.Length);
      speech.Write(bytes, 0, bytes.Length);
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
