// Hears of each pick of "Paper Archive" on a device's panel, until Enter. usage: Client [ADDRESS [PORT]]
using System;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

static class Qoma
{
    public const uint Ok = 0, NoPort = 255, Network = 1, FlagSelect = 1, Forever = 0xFFFFFFFF;
    public const int KindRecovered = 3;

    [StructLayout(LayoutKind.Sequential)]
    public struct Notification
    {
        public uint Size;
        public int Kind;
        public uint NotifyCode;
        public int Value;
        public uint Word;
        public uint Lost;
        public uint LostKinds;
        [MarshalAs(UnmanagedType.ByValArray, SizeConst = 352)] public byte[] Option;
        [MarshalAs(UnmanagedType.ByValArray, SizeConst = 16)] public byte[] SenderAddress;
        [MarshalAs(UnmanagedType.ByValArray, SizeConst = 260)] public byte[] SenderName;
    }

    const string Module = "QOMANoAgC";

    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    static extern IntPtr qoma_strerror(uint result);
    // Without a callback, what happens is asked for: no foreign thread enters the runtime.
    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    public static extern uint qoma_create(IntPtr callback, IntPtr user, out IntPtr agent);
    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    public static extern uint qoma_destroy(IntPtr agent);
    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    public static extern uint qoma_connect(IntPtr agent, byte[] address, uint port, uint way);
    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    public static extern uint qoma_add(IntPtr agent, uint flags, byte[] option, out uint instance);
    [DllImport(Module, CallingConvention = CallingConvention.Cdecl)]
    public static extern uint qoma_poll(IntPtr agent, uint timeoutMs, ref Notification notification);

    // All texts are UTF-8 and end in a zero, whatever the system's own encoding is.
    public static byte[] Text(string text) { return Encoding.UTF8.GetBytes(text + "\0"); }

    public static string Text(byte[] text)
    {
        return Encoding.UTF8.GetString(text, 0, Array.IndexOf(text, (byte)0));
    }

    public static void Check(uint result)
    {
        if (result != Ok)
        {
            throw new Exception(Marshal.PtrToStringAnsi(qoma_strerror(result)) + " (" + result + ")");
        }
    }
}

static class Client
{
    static int Main(string[] args)
    {
        string address = args.Length > 0 ? args[0] : "127.0.0.1";
        uint port = args.Length > 1 ? uint.Parse(args[1]) : Qoma.NoPort;
        IntPtr agent = IntPtr.Zero;
        try
        {
            Qoma.Check(Qoma.qoma_create(IntPtr.Zero, IntPtr.Zero, out agent));
            Qoma.Check(Qoma.qoma_connect(agent, Qoma.Text(address), port, Qoma.Network));
            Qoma.Check(Subscribe(agent));
            var listener = new Thread(() => Listen(agent));
            listener.Start();
            Console.In.ReadLine();
            Qoma.qoma_destroy(agent); // which ends the listener's wait
            listener.Join();
            return 0;
        }
        catch (Exception error)
        {
            Console.Error.WriteLine("Client: " + error.Message);
            Qoma.qoma_destroy(agent);
            return 1;
        }
    }

    static uint Subscribe(IntPtr agent)
    {
        uint instance;
        return Qoma.qoma_add(agent, Qoma.FlagSelect, Qoma.Text("Paper Archive"), out instance);
    }

    static void Listen(IntPtr agent)
    {
        var heard = new Qoma.Notification { Size = (uint)Marshal.SizeOf(typeof(Qoma.Notification)) };
        while (Qoma.qoma_poll(agent, Qoma.Forever, ref heard) == Qoma.Ok)
        {
            Console.WriteLine("kind {0}: {1}", heard.Kind, Qoma.Text(heard.Option));
            Console.Out.Flush();
            if (heard.Kind == Qoma.KindRecovered)
            {
                Subscribe(agent); // the device has forgotten us; if it goes once more, so we hear of it once more
            }
        }
    }
}
