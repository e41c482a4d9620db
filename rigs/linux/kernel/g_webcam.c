// SPDX-License-Identifier: GPL-2.0
/*
 * For testing only: a gadget that binds the kernel's own, unmodified UVC function
 * (usb_f_uvc) with descriptors of its own, so that entity numbers, format order
 * and frame-based formats are free (configfs of 6.12 cannot express them). Built
 * as g_webcam.ko, the name that the service's own shell lines load.
 */
#include <linux/module.h>
#include <linux/usb/composite.h>
#include <linux/usb/uvc.h>
#include <linux/usb/video.h>
#include <linux/unaligned.h>

#include "u_uvc.h"
#include "uvc_configfs.h"
#include "uvc_formats.h"
#include "uvc_units.h"

USB_GADGET_COMPOSITE_OPTIONS();

#define STREAMING_MAXPACKET 3072	/* bytes per microframe */

#define OUTPUT_TERMINAL 4

/* of the driver's list only, so that S_FMT grants it for YUY2 */
static const struct FrameSize driver_size = { 1280, 720 };
static const u32 intervals[] = { 166666, 333333, 400000, 666666 };

#define SIZES(table) table, ARRAY_SIZE(table)

/* in the order of bFormatIndex */
static const struct format {
	u8 type;			/* of the format descriptor */
	u8 fourcc[4];
	const struct FrameSize *sizes;
	u8 n;
	u8 first_interval;
} formats[] = {
	{ UVC_VS_FORMAT_MJPEG,		"MJPG", SIZES(kMjpegSizes), 0 },
	{ UVC_VS_FORMAT_FRAME_BASED,	"H264", SIZES(kH264Sizes), 0 },
	{ UVC_VS_FORMAT_UNCOMPRESSED,	"YUY2", SIZES(kYuy2Sizes), 1 },
	{ UVC_VS_FORMAT_FRAME_BASED,	"H265", SIZES(kH265Sizes), 0 },
};

/* ---- class descriptors, written as bytes ------------------------------- */

static u8 arena[4096];
static unsigned int used;
static const struct uvc_descriptor_header *vc[8], *vs[64];

static u8 *put(const struct uvc_descriptor_header **list, u8 len, u8 subtype)
{
	u8 *d = arena + used;

	BUG_ON(used + len > sizeof(arena));
	used += len;
	memset(d, 0, len);
	d[0] = len;
	d[1] = USB_DT_CS_INTERFACE;
	d[2] = subtype;
	while (*list)
		list++;
	*list = (const struct uvc_descriptor_header *)d;
	return d;
}

static void build_control(void)
{
	u8 *d;

	d = put(vc, 13, UVC_VC_HEADER);		/* totals filled by usb_f_uvc */
	put_unaligned_le16(0x0100, d + 3);
	put_unaligned_le32(48000000, d + 7);

	d = put(vc, 18, UVC_VC_INPUT_TERMINAL);
	d[3] = kCameraTerminal;
	put_unaligned_le16(0x0201, d + 4);
	d[14] = 3;
	put_unaligned_le24(kCameraTerminalBits, d + 15);

	/* UVC 1.0 form; what the bits leave of their 3 bytes is iProcessing, 0 */
	d = put(vc, 9 + kProcessingUnitBitsSize, UVC_VC_PROCESSING_UNIT);
	d[3] = kProcessingUnit;
	d[4] = kCameraTerminal;
	d[7] = kProcessingUnitBitsSize;
	put_unaligned_le24(kProcessingUnitBits, d + 8);

	d = put(vc, 29, UVC_VC_EXTENSION_UNIT);
	d[3] = kExtensionUnit;
	memcpy(d + 4, kExtensionUnitGuid, 16);
	d[20] = hweight32(kExtensionUnitBits);
	d[21] = 1;
	d[22] = kProcessingUnit;
	d[23] = 4;
	put_unaligned_le32(kExtensionUnitBits, d + 24);

	d = put(vc, 9, UVC_VC_OUTPUT_TERMINAL);
	d[3] = OUTPUT_TERMINAL;
	put_unaligned_le16(0x0101, d + 4);
	d[7] = kExtensionUnit;
}

static void build_frame(const struct format *f, u8 index, struct FrameSize s)
{
	unsigned int k, n = ARRAY_SIZE(intervals) - f->first_interval;
	u32 rate = s.width * s.height * 16u * 5, bytes = s.width * s.height * 2;
	u8 *d = put(vs, 26 + 4 * n, f->type + 1);	/* frame type follows format */
	u8 *v = d + 26;

	d[3] = index;
	put_unaligned_le16(s.width, d + 5);
	put_unaligned_le16(s.height, d + 7);
	put_unaligned_le32(rate, d + 9);
	put_unaligned_le32(rate * 6, d + 13);
	if (f->type == UVC_VS_FORMAT_FRAME_BASED) {
		put_unaligned_le32(333333, d + 17);
		d[21] = n;				/* then dwBytesPerLine, 0 */
	} else {
		put_unaligned_le32(bytes, d + 17);
		put_unaligned_le32(333333, d + 21);
		d[25] = n;
	}
	for (k = 0; k < n; k++)
		put_unaligned_le32(intervals[k + f->first_interval], v + 4 * k);
}

static void build_streaming(void)
{
	static const u8 guid_tail[12] = { 0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
					  0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71 };
	unsigned int i, k, nf = ARRAY_SIZE(formats);
	u8 *d;

	d = put(vs, 13 + nf, UVC_VS_INPUT_HEADER);
	d[3] = nf;
	d[8] = OUTPUT_TERMINAL;
	d[12] = 1;

	for (i = 0; i < nf; i++) {
		const struct format *f = &formats[i];

		d = put(vs, f->type == UVC_VS_FORMAT_MJPEG ? 11 :
			    f->type == UVC_VS_FORMAT_UNCOMPRESSED ? 27 : 28, f->type);
		d[3] = i + 1;
		d[4] = f->n;
		if (f->type == UVC_VS_FORMAT_MJPEG) {
			d[6] = 1;			/* bDefaultFrameIndex */
		} else {
			memcpy(d + 5, f->fourcc, 4);
			memcpy(d + 9, guid_tail, 12);
			d[21] = 16;
			d[22] = 1;
			if (f->type == UVC_VS_FORMAT_FRAME_BASED)
				d[27] = 1;		/* bVariableSize */
		}
		for (k = 0; k < f->n; k++)
			build_frame(f, k + 1, f->sizes[k]);
		d = put(vs, 6, UVC_VS_COLORFORMAT);
		d[3] = d[4] = 1;
		d[5] = 4;
	}
}

/* ---- what the driver's own S_FMT, ENUM_FMT and so on consult ------------ */

static struct uvcg_uncompressed drv_yuy2;
static struct uvcg_mjpeg drv_mjpeg;
static struct uvcg_format_ptr ptr_yuy2, ptr_mjpeg;
static struct uvcg_frame frames[ARRAY_SIZE(kYuy2Sizes) + 1 + ARRAY_SIZE(kMjpegSizes)];
static struct uvcg_frame_ptr frame_ptrs[ARRAY_SIZE(frames)];
static struct uvcg_streaming_header drv_header;

static void init_format(struct uvcg_format *f, enum uvcg_format_type type)
{
	f->type = type;
	INIT_LIST_HEAD(&f->frames);
}

static void add_frames(struct uvcg_format *f, const struct FrameSize *s, u8 n)
{
	static unsigned int at;

	for (; n; n--, s++, at++) {
		frames[at].fmt_type = f->type;
		frames[at].frame.b_frame_index = ++f->num_frames;
		frames[at].frame.w_width = s->width;
		frames[at].frame.w_height = s->height;
		frames[at].frame.dw_max_video_frame_buffer_size = s->width * s->height * 2;
		frames[at].frame.b_frame_interval_type = ARRAY_SIZE(intervals);
		frames[at].dw_frame_interval = (u32 *)intervals;
		frame_ptrs[at].frm = &frames[at];
		list_add_tail(&frame_ptrs[at].entry, &f->frames);
	}
}

static void build_driver_lists(void)
{
	static const u8 yuy2[16] = UVC_GUID_FORMAT_YUY2;

	init_format(&drv_yuy2.fmt, UVCG_UNCOMPRESSED);
	add_frames(&drv_yuy2.fmt, SIZES(kYuy2Sizes));
	add_frames(&drv_yuy2.fmt, &driver_size, 1);
	init_format(&drv_mjpeg.fmt, UVCG_MJPEG);
	add_frames(&drv_mjpeg.fmt, SIZES(kMjpegSizes));
	memcpy(drv_yuy2.desc.guidFormat, yuy2, 16);
	drv_yuy2.desc.bBitsPerPixel = 16;
	ptr_yuy2.fmt = &drv_yuy2.fmt;
	ptr_mjpeg.fmt = &drv_mjpeg.fmt;
	INIT_LIST_HEAD(&drv_header.formats);
	list_add_tail(&ptr_mjpeg.entry, &drv_header.formats);
	list_add_tail(&ptr_yuy2.entry, &drv_header.formats);
	drv_header.num_fmt = 2;
}

/* ---- composite driver -------------------------------------------------- */

static struct usb_string strings[] = {
	[USB_GADGET_MANUFACTURER_IDX].s = "Test bed",
	[USB_GADGET_PRODUCT_IDX].s = "UVC gadget",
	[USB_GADGET_SERIAL_IDX].s = "0001",
	{ }
};
static struct usb_gadget_strings stringtab = { .language = 0x0409, .strings = strings };
static struct usb_gadget_strings *dev_strings[] = { &stringtab, NULL };

static struct usb_device_descriptor device_desc = {
	.bLength = USB_DT_DEVICE_SIZE, .bDescriptorType = USB_DT_DEVICE,
	.bDeviceClass = USB_CLASS_MISC, .bDeviceSubClass = 2, .bDeviceProtocol = 1,
	.idVendor = cpu_to_le16(0x1d6b), .idProduct = cpu_to_le16(0x0102),
	.bcdDevice = cpu_to_le16(0x0010),
};

static struct usb_configuration config = {
	.label = "Video", .bConfigurationValue = 1,
	.bmAttributes = USB_CONFIG_ATT_SELFPOWER, .MaxPower = 2,
};

static struct usb_function_instance *fi;
static struct usb_function *fn;

static int config_bind(struct usb_configuration *c)
{
	int ret;

	fn = usb_get_function(fi);
	if (IS_ERR(fn))
		return PTR_ERR(fn);
	ret = usb_add_function(c, fn);
	if (ret < 0)
		usb_put_function(fn);
	return ret;
}

static int gadget_bind(struct usb_composite_dev *cdev)
{
	struct f_uvc_opts *opts;
	int ret;

	fi = usb_get_function_instance("uvc");
	if (IS_ERR(fi))
		return PTR_ERR(fi);
	opts = fi_to_f_uvc_opts(fi);
	opts->streaming_interval = 1;
	opts->streaming_maxpacket = STREAMING_MAXPACKET;
	opts->fs_control = opts->ss_control = vc;
	opts->fs_streaming = opts->hs_streaming = opts->ss_streaming = vs;
	opts->header = &drv_header;

	ret = usb_string_ids_tab(cdev, strings);
	if (ret < 0)
		goto error;
	device_desc.iManufacturer = strings[USB_GADGET_MANUFACTURER_IDX].id;
	device_desc.iProduct = strings[USB_GADGET_PRODUCT_IDX].id;
	device_desc.iSerialNumber = strings[USB_GADGET_SERIAL_IDX].id;
	ret = usb_add_config(cdev, &config, config_bind);
	if (ret < 0)
		goto error;
	usb_composite_overwrite_options(cdev, &coverwrite);
	return 0;
error:
	usb_put_function_instance(fi);
	return ret;
}

static int gadget_unbind(struct usb_composite_dev *cdev)
{
	usb_put_function(fn);
	usb_put_function_instance(fi);
	return 0;
}

static struct usb_composite_driver driver = {
	.name = "g_webcam", .dev = &device_desc, .strings = dev_strings,
	.max_speed = USB_SPEED_HIGH, .bind = gadget_bind, .unbind = gadget_unbind,
};

static int __init bed_init(void)
{
	build_control();
	build_streaming();
	build_driver_lists();
	return usb_composite_probe(&driver);
}
module_init(bed_init);

static void __exit bed_exit(void)
{
	usb_composite_unregister(&driver);
}
module_exit(bed_exit);

MODULE_DESCRIPTION("UVC gadget with free descriptors (test bed)");
MODULE_LICENSE("GPL");
