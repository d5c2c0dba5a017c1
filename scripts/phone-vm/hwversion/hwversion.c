// SPDX-License-Identifier: GPL-2.0
/*
 * The emulated phone's /proc/hwversion: the hardware version text that a phone's own kernel
 * publishes there ("<device id>.<f2>.<f3>.<f4>.<f5>.<f6>.<revision>"), given at load time:
 *   insmod hwversion.ko version=23.0.0.0.0.0.9
 */
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>

static char *version = "0.0.0.0.0.0.0";
module_param(version, charp, 0444);
MODULE_PARM_DESC(version, "hardware version text");

static int hwversion_show(struct seq_file *m, void *v)
{
	seq_printf(m, "%s\n", version);
	return 0;
}

static int __init hwversion_init(void)
{
	return proc_create_single("hwversion", 0444, NULL, hwversion_show) ? 0 : -ENOMEM;
}

static void __exit hwversion_exit(void)
{
	remove_proc_entry("hwversion", NULL);
}

module_init(hwversion_init);
module_exit(hwversion_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Hardware version of the emulated phone");
