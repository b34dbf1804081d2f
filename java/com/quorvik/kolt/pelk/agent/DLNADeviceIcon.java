package com.quorvik.kolt.pelk.agent;

/** An icon of a DLNA device. The library knows the class but never makes one. */
public class DLNADeviceIcon {
    private String type;
    private int height;
    private int width;
    private String URL;

    public DLNADeviceIcon(String type, int height, int width, String url) {
        this.type = type;
        this.height = height;
        this.width = width;
        this.URL = url;
    }

    public String getType() {
        return type;
    }

    public int getHeight() {
        return height;
    }

    public int getWidth() {
        return width;
    }

    public String getURL() {
        return URL;
    }
}
