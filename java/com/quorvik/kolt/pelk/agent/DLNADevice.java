package com.quorvik.kolt.pelk.agent;

/** A DLNA media server or renderer. The library reads it through its getters. */
public class DLNADevice {
    private String name;
    private int type;
    private String UUID;
    private String IPv4;
    private boolean localDevice;
    private DLNADeviceIcon deviceIcon;  // not filled by the library

    public DLNADevice() {}

    public DLNADevice(String name, int type, String uuid, String ipv4, boolean localDevice) {
        this.name = name;
        this.type = type;
        this.UUID = uuid;
        this.IPv4 = ipv4;
        this.localDevice = localDevice;
    }

    public DLNADevice(DLNADevice other) {
        this(other.name, other.type, other.UUID, other.IPv4, other.localDevice);
        this.deviceIcon = other.deviceIcon;
    }

    public String getName() {
        return name;
    }

    /** 0 media server, 1 renderer. */
    public int getType() {
        return type;
    }

    public String getUUID() {
        return UUID;
    }

    public String getIPv4() {
        return IPv4;
    }

    public boolean isLocalDevice() {
        return localDevice;
    }
}
