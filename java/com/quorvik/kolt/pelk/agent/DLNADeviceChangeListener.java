package com.quorvik.kolt.pelk.agent;

/** Hears of media servers and renderers appearing or leaving (registerApp). */
public interface DLNADeviceChangeListener {
    void onDLNADeviceChange(DLNADevice device, int changeType);
}
