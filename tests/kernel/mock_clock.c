// SPDX-License-Identifier: GPL-2.0
/*
 * A clock that is not there, so that nsmd can be tried against the kernel's real DPLL core. tools/check_kernel builds
 * it into a kernel of its own; it never runs on a switch. As a kernel module it is under the GNU General Public
 * License, version 2, whatever the rest of this tree is under.
 *
 * There is one device of type EEC, with `pps` a device of type PPS beside it, and a pin for each of `ports` network
 * devices swp0, swp1, ..., which are joined in pairs. With `mux` the ports' pins hang on a MUX pin, with `external`
 * there is an input BITS1 besides. A pin has a signal while its network device has carrier and its bit in
 * `no_signal` is clear. What the hardware does is decided in `tick`, every 20 ms and after each setting.
 *
 * In debugfs, below mock_clock/:
 *   state    what the hardware really does, whatever the interface reports meanwhile
 *   present  0: devices and pins go, the network devices stay (a driver's reset); 1: they come back, with new
 *            numbers; 2: the PPS device alone goes
 *   bind     "PIN IFNAME": the pin is that network device's from now on; "PIN": nobody's
 *   hand     "PIN": what another program does that makes the device follow this pin
 *
 * Locks, in this order: RTNL, the DPLL core's, state_lock. The core and RTNL are never asked with state_lock held.
 */
#include <linux/debugfs.h>
#include <linux/delay.h>
#include <linux/dpll.h>
#include <linux/etherdevice.h>
#include <linux/ethtool.h>
#include <linux/module.h>
#include <linux/nsproxy.h>
#include <linux/seq_file.h>
#include <linux/workqueue.h>

#define PINS_MAX 256
#define TICK_MS 20
#define CLOCK_ID 0x0102030405060708ULL
#define PRIO_LAST 14

static int mode = DPLL_MODE_MANUAL, ports = 4, external = 1, pps, mux;
module_param(mode, int, 0444);		/* 1 manual, 2 automatic */
module_param(ports, int, 0444);
module_param(external, int, 0444);
module_param(pps, int, 0444);
module_param(mux, int, 0444);

static int lock_ms = 200, acquire_ms = 200, hold_ms;
module_param(lock_ms, int, 0644);	/* from a reference to locked */
module_param(acquire_ms, int, 0644);	/* from locked to a holdover that lasts */
module_param(hold_ms, int, 0644);	/* how long holdover lasts; 0: for ever; negative: there is none */

static int set_error, pin_error, device_error, set_delay_ms, get_delay_ms, silent;
static ulong no_signal, bad_pins = ~0UL;
module_param(set_error, int, 0644);	/* errno of every setting */
module_param(pin_error, int, 0644);	/* errno of every reading of the state of the pins in `bad_pins` */
module_param(bad_pins, ulong, 0644);
module_param(device_error, int, 0644);	/* errno of every reading of the lock status */
module_param(set_delay_ms, int, 0644);	/* how long a setting takes */
module_param(get_delay_ms, int, 0644);	/* how long reading a pin's state takes */
module_param(silent, int, 0644);	/* no notifications when the hardware moves */
module_param(no_signal, ulong, 0644);

static int lock_error = DPLL_LOCK_STATUS_ERROR_NONE, offset_ppm;
static ulong quality;
module_param(lock_error, int, 0644);	/* why the lock was lost, as the interface numbers it */
module_param(offset_ppm, int, 0644);	/* frequency offset of every pin; 0: not told */
module_param(quality, ulong, 0444);	/* bits of the levels that the device claims */

struct mock_pin {
	struct dpll_pin *pin;
	struct net_device *dev;
	char label[16];
	enum dpll_pin_state wish;	/* automatic: selectable or disconnected; on the MUX: connected or disconnected */
	u32 prio;
	bool on_mux;
};

struct mock_port {
	struct net_device *peer;	/* null while the module leaves */
	u8 master_slave;
};

static DEFINE_MUTEX(state_lock);	/* all of the following up to `ending` */
static struct mock_pin pins[PINS_MAX];
static int pin_count, mux_at;
static int chosen;			/* manual: the connected pin, or -1 */
static int active;			/* the pin with a signal that the device follows, or -1 */
static enum dpll_lock_status status;
static unsigned long since;		/* when the status or the reference changed last */
static unsigned long settings, refused;
static unsigned long moves;		/* how often status or reference became others */
static bool ending;			/* no tick is to begin any more */

static DEFINE_MUTEX(presence_lock);	/* held while devices and pins come or go */
static struct dpll_device *eec, *ppsdev;
static struct net_device *devs[PINS_MAX];
static struct dentry *dir;
static struct delayed_work tick;

/* --- the hardware --- */

static bool has_own_signal(int i)
{
	if (i < BITS_PER_LONG && (no_signal & BIT(i)))
		return false;
	return !pins[i].dev || netif_carrier_ok(pins[i].dev);
}

/* The pin that the MUX passes on, or -1. */
static int through_mux(void)
{
	int i;

	for (i = 0; i < pin_count; i++)
		if (pins[i].on_mux && pins[i].wish == DPLL_PIN_STATE_CONNECTED && has_own_signal(i))
			return i;
	return -1;
}

static bool has_signal(int i)
{
	return i == mux_at ? through_mux() >= 0 : has_own_signal(i);
}

static int best_by_priority(void)
{
	int i, found = -1;

	for (i = 0; i < pin_count; i++)
		if (!pins[i].on_mux && pins[i].wish == DPLL_PIN_STATE_SELECTABLE && has_signal(i) &&
		    (found < 0 || pins[i].prio < pins[found].prio))
			found = i;
	return found;
}

static int reference(void)
{
	if (mode == DPLL_MODE_AUTOMATIC)
		return best_by_priority();
	return chosen >= 0 && has_signal(chosen) ? chosen : -1;
}

static bool lasted(int ms)
{
	return time_after_eq(jiffies, since + msecs_to_jiffies(ms));
}

static void become(enum dpll_lock_status to)
{
	status = to;
	since = jiffies;
}

static void run_without_reference(void)
{
	if (status == DPLL_LOCK_STATUS_LOCKED_HO_ACQ && hold_ms >= 0)
		become(DPLL_LOCK_STATUS_HOLDOVER);
	else if (status == DPLL_LOCK_STATUS_LOCKED || status == DPLL_LOCK_STATUS_LOCKED_HO_ACQ)
		become(DPLL_LOCK_STATUS_UNLOCKED);
	else if (status == DPLL_LOCK_STATUS_HOLDOVER && hold_ms > 0 && lasted(hold_ms))
		become(DPLL_LOCK_STATUS_UNLOCKED);
}

static void run_with_reference(bool is_new)
{
	if (status == DPLL_LOCK_STATUS_LOCKED || status == DPLL_LOCK_STATUS_LOCKED_HO_ACQ) {
		if (is_new)		/* what would be held is learnt anew */
			become(DPLL_LOCK_STATUS_LOCKED);
		else if (status == DPLL_LOCK_STATUS_LOCKED && lasted(acquire_ms))
			become(DPLL_LOCK_STATUS_LOCKED_HO_ACQ);
	} else if (is_new) {
		since = jiffies;
	} else if (lasted(lock_ms)) {
		become(DPLL_LOCK_STATUS_LOCKED);
	}
}

static void tick_fn(struct work_struct *work)
{
	enum dpll_lock_status before;
	int was, now;
	bool moved;

	mutex_lock(&state_lock);
	before = status;
	was = active;
	now = active = reference();
	if (now < 0)
		run_without_reference();
	else
		run_with_reference(now != was);
	moved = status != before;
	moves += moved || now != was;
	if (!ending)
		schedule_delayed_work(&tick, msecs_to_jiffies(TICK_MS));
	mutex_unlock(&state_lock);

	if (silent)
		return;
	if (moved)
		dpll_device_change_ntf(eec);
	if (was != now && was >= 0)
		dpll_pin_change_ntf(pins[was].pin);
	if (was != now && now >= 0)
		dpll_pin_change_ntf(pins[now].pin);
}

static void tick_now(void)		/* with state_lock */
{
	if (!ending)
		mod_delayed_work(system_wq, &tick, 0);
}

/* --- what the DPLL core asks --- */

static int mode_get(const struct dpll_device *dpll, void *priv, enum dpll_mode *out, struct netlink_ext_ack *extack)
{
	*out = mode;
	return 0;
}

static int lock_status_get(const struct dpll_device *dpll, void *priv, enum dpll_lock_status *out,
			   enum dpll_lock_status_error *error, struct netlink_ext_ack *extack)
{
	*out = READ_ONCE(status);
	*error = lock_error;
	return -device_error;
}

static int quality_get(const struct dpll_device *dpll, void *priv, unsigned long *levels, struct netlink_ext_ack *extack)
{
	*levels = quality;
	return 0;
}

static int offset_get(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv, s64 *out,
		      struct netlink_ext_ack *extack)
{
	*out = offset_ppm;
	return offset_ppm ? 0 : -ENODATA;
}

static int direction_get(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv,
			 enum dpll_pin_direction *out, struct netlink_ext_ack *extack)
{
	*out = DPLL_PIN_DIRECTION_INPUT;
	return 0;
}

static int reading_result(int i)
{
	return bad_pins & BIT(i % BITS_PER_LONG) ? -pin_error : 0;
}

static int state_get(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv,
		     enum dpll_pin_state *out, struct netlink_ext_ack *extack)
{
	struct mock_pin *m = priv;
	int i = m - pins;

	msleep(get_delay_ms);
	mutex_lock(&state_lock);
	if (mode == DPLL_MODE_MANUAL)
		*out = i == chosen ? DPLL_PIN_STATE_CONNECTED : DPLL_PIN_STATE_DISCONNECTED;
	else
		*out = i == active ? DPLL_PIN_STATE_CONNECTED : m->wish;
	mutex_unlock(&state_lock);
	return reading_result(i);
}

/* Whether the hardware takes settings at all. With state_lock. */
static int may_set(void)
{
	settings++;
	refused += set_error != 0;
	return -set_error;
}

static void put_state(int i, enum dpll_pin_state state)
{
	if (mode == DPLL_MODE_AUTOMATIC)
		pins[i].wish = state;
	else if (state == DPLL_PIN_STATE_CONNECTED)
		chosen = i;
	else if (chosen == i)
		chosen = -1;
	tick_now();
}

static int state_set(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv,
		     const enum dpll_pin_state state, struct netlink_ext_ack *extack)
{
	int ret;

	if (state == (mode == DPLL_MODE_MANUAL ? DPLL_PIN_STATE_SELECTABLE : DPLL_PIN_STATE_CONNECTED))
		return -EINVAL;
	msleep(set_delay_ms);
	mutex_lock(&state_lock);
	ret = may_set();
	if (!ret)
		put_state((struct mock_pin *)priv - pins, state);
	mutex_unlock(&state_lock);
	return ret;
}

static int prio_get(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv, u32 *out,
		    struct netlink_ext_ack *extack)
{
	*out = ((struct mock_pin *)priv)->prio;
	return 0;
}

static int prio_set(const struct dpll_pin *pin, void *priv, const struct dpll_device *dpll, void *dpll_priv,
		    const u32 prio, struct netlink_ext_ack *extack)
{
	int ret;

	if (prio > PRIO_LAST)
		return -EINVAL;
	mutex_lock(&state_lock);
	ret = may_set();
	if (!ret) {
		((struct mock_pin *)priv)->prio = prio;
		tick_now();
	}
	mutex_unlock(&state_lock);
	return ret;
}

static int state_on_mux_get(const struct dpll_pin *pin, void *priv, const struct dpll_pin *parent, void *parent_priv,
			    enum dpll_pin_state *out, struct netlink_ext_ack *extack)
{
	*out = ((struct mock_pin *)priv)->wish;
	return reading_result((struct mock_pin *)priv - pins);
}

static int state_on_mux_set(const struct dpll_pin *pin, void *priv, const struct dpll_pin *parent, void *parent_priv,
			    const enum dpll_pin_state state, struct netlink_ext_ack *extack)
{
	struct mock_pin *m = priv;
	int ret;

	mutex_lock(&state_lock);
	ret = may_set();
	if (!ret && (state == m->wish || state == DPLL_PIN_STATE_SELECTABLE))
		ret = -EINVAL;		/* there is hardware that refuses a state which is there already */
	if (!ret) {
		m->wish = state;
		tick_now();
	}
	mutex_unlock(&state_lock);
	return ret;
}

static const struct dpll_device_ops device_ops = {
	.mode_get = mode_get,
	.lock_status_get = lock_status_get,
	.clock_quality_level_get = quality_get,
};

static const struct dpll_pin_ops manual_ops = {
	.direction_get = direction_get,
	.ffo_get = offset_get,
	.state_on_dpll_get = state_get,
	.state_on_dpll_set = state_set,
};

static const struct dpll_pin_ops automatic_ops = {
	.direction_get = direction_get,
	.ffo_get = offset_get,
	.state_on_dpll_get = state_get,
	.state_on_dpll_set = state_set,
	.prio_get = prio_get,
	.prio_set = prio_set,
};

static const struct dpll_pin_ops on_mux_ops = {
	.direction_get = direction_get,
	.state_on_pin_get = state_on_mux_get,
	.state_on_pin_set = state_on_mux_set,
};

static const struct dpll_pin_ops *pin_ops(void)
{
	return mode == DPLL_MODE_MANUAL ? &manual_ops : &automatic_ops;
}

/* --- the network devices --- */

static void set_carrier(struct net_device *dev, bool on)
{
	if (on)
		netif_carrier_on(dev);
	else
		netif_carrier_off(dev);
}

/* Both ends have carrier when both are up, as with a cable. */
static int port_turn(struct net_device *dev, bool up)
{
	struct net_device *peer = ((struct mock_port *)netdev_priv(dev))->peer;
	bool on = up && peer && netif_running(peer);

	if (up)
		netif_start_queue(dev);
	else
		netif_stop_queue(dev);
	set_carrier(dev, on);
	if (peer)
		set_carrier(peer, on);
	return 0;
}

static int port_open(struct net_device *dev)
{
	return port_turn(dev, true);
}

static int port_stop(struct net_device *dev)
{
	return port_turn(dev, false);
}

static netdev_tx_t port_xmit(struct sk_buff *skb, struct net_device *dev)
{
	struct net_device *peer = READ_ONCE(((struct mock_port *)netdev_priv(dev))->peer);

	if (peer && netif_carrier_ok(dev))
		dev_forward_skb(peer, skb);
	else
		kfree_skb(skb);
	return NETDEV_TX_OK;
}

static int port_settings_get(struct net_device *dev, struct ethtool_link_ksettings *out)
{
	out->base.speed = SPEED_1000;
	out->base.duplex = DUPLEX_FULL;
	out->base.port = PORT_TP;
	out->base.master_slave_cfg = ((struct mock_port *)netdev_priv(dev))->master_slave;
	out->base.master_slave_state = MASTER_SLAVE_STATE_UNKNOWN;
	return 0;
}

static int port_settings_set(struct net_device *dev, const struct ethtool_link_ksettings *wanted)
{
	((struct mock_port *)netdev_priv(dev))->master_slave = wanted->base.master_slave_cfg;
	return 0;
}

static const struct net_device_ops port_ops = {
	.ndo_open = port_open,
	.ndo_stop = port_stop,
	.ndo_start_xmit = port_xmit,
	.ndo_set_mac_address = eth_mac_addr,
	.ndo_validate_addr = eth_validate_addr,
};

static const struct ethtool_ops port_ethtool_ops = {
	.get_link = ethtool_op_get_link,
	.get_link_ksettings = port_settings_get,
	.set_link_ksettings = port_settings_set,
};

static int add_port(int i)
{
	struct net_device *dev = alloc_netdev(sizeof(struct mock_port), "swp%d", NET_NAME_ENUM, ether_setup);
	struct mock_port *port;
	int ret;

	if (!dev)
		return -ENOMEM;
	port = netdev_priv(dev);
	port->master_slave = MASTER_SLAVE_CFG_MASTER_PREFERRED;
	dev->netdev_ops = &port_ops;
	dev->ethtool_ops = &port_ethtool_ops;
	dev->priv_flags |= IFF_LIVE_ADDR_CHANGE;
	eth_hw_addr_random(dev);
	netif_carrier_off(dev);
	ret = register_netdev(dev);
	if (ret) {
		free_netdev(dev);
		return ret;
	}
	devs[i] = dev;
	if (i & 1) {
		port->peer = devs[i - 1];
		((struct mock_port *)netdev_priv(devs[i - 1]))->peer = dev;
	}
	return 0;
}

static void remove_ports(void)
{
	int i;

	for (i = 0; i < ports && devs[i]; i++)
		WRITE_ONCE(((struct mock_port *)netdev_priv(devs[i]))->peer, NULL);
	synchronize_net();
	for (i = 0; i < ports && devs[i]; i++) {
		unregister_netdev(devs[i]);
		free_netdev(devs[i]);
	}
}

/* Whose the pin is; null: nobody's. */
static int bind_pin(int i, struct net_device *dev)
{
	struct net_device *before;

	mutex_lock(&state_lock);
	if (i < 0 || i >= pin_count) {
		mutex_unlock(&state_lock);
		return -EINVAL;
	}
	before = pins[i].dev;
	dev_hold(before);
	pins[i].dev = dev;
	mutex_unlock(&state_lock);
	if (before)
		dpll_netdev_pin_clear(before);
	dev_put(before);
	if (dev)
		dpll_netdev_pin_set(dev, pins[i].pin);
	return 0;
}

static int netdev_event(struct notifier_block *nb, unsigned long event, void *info)
{
	struct net_device *dev = netdev_notifier_info_to_dev(info);
	int i;

	/* A move to another namespace is told as an end too, but the device stays registered. */
	if (event != NETDEV_UNREGISTER || dev->reg_state == NETREG_REGISTERED)
		return NOTIFY_DONE;
	mutex_lock(&state_lock);
	for (i = 0; i < pin_count; i++)
		if (pins[i].dev == dev)
			pins[i].dev = NULL;
	mutex_unlock(&state_lock);
	return NOTIFY_DONE;
}

static struct notifier_block netdev_nb = { .notifier_call = netdev_event };

/* --- devices and pins come and go --- */

static struct dpll_device *add_device(int index, enum dpll_type type, void *priv)
{
	struct dpll_device *dpll = dpll_device_get(CLOCK_ID, index, THIS_MODULE);
	int ret;

	if (IS_ERR(dpll))
		return NULL;
	ret = dpll_device_register(dpll, type, &device_ops, priv);
	if (!ret)
		return dpll;
	pr_err("mock_clock: device %d: %d\n", index, ret);
	dpll_device_put(dpll);
	return NULL;
}

static void remove_device(struct dpll_device **dpll)
{
	int i;

	if (!*dpll)
		return;
	for (i = 0; i < pin_count; i++)
		if (!pins[i].on_mux)
			dpll_pin_unregister(*dpll, pins[i].pin, pin_ops(), &pins[i]);
	dpll_device_unregister(*dpll, &device_ops, dpll);
	dpll_device_put(*dpll);
	*dpll = NULL;
}

static int register_pin(struct mock_pin *m)
{
	int ret;

	if (m->on_mux)
		return dpll_pin_on_pin_register(pins[mux_at].pin, m->pin, &on_mux_ops, m);
	ret = dpll_pin_register(eec, m->pin, pin_ops(), m);
	return !ret && ppsdev ? dpll_pin_register(ppsdev, m->pin, pin_ops(), m) : ret;
}

static void add_pin(enum dpll_pin_type type, const char *label, bool on_mux)
{
	struct mock_pin *m = &pins[pin_count];
	struct dpll_pin_properties properties = {
		.board_label = m->label, .panel_label = "front", .package_label = "chip", .type = type, .capabilities = DPLL_PIN_CAPABILITIES_STATE_CAN_CHANGE,
	};
	int ret;

	if (mode == DPLL_MODE_AUTOMATIC && !on_mux)
		properties.capabilities |= DPLL_PIN_CAPABILITIES_PRIORITY_CAN_CHANGE;
	strscpy(m->label, label, sizeof(m->label));
	m->wish = DPLL_PIN_STATE_DISCONNECTED;
	m->prio = min(pin_count + 1, PRIO_LAST);
	m->on_mux = on_mux;
	m->pin = dpll_pin_get(CLOCK_ID, pin_count, THIS_MODULE, &properties);
	if (IS_ERR(m->pin)) {
		pr_err("mock_clock: no pin %s: %ld\n", label, PTR_ERR(m->pin));
		return;
	}
	pin_count++;
	ret = register_pin(m);
	if (ret)
		pr_err("mock_clock: pin %s: %d\n", label, ret);
}

static void add_pins(void)
{
	char label[16];
	int i;

	if (mux) {
		add_pin(DPLL_PIN_TYPE_MUX, "MUX", false);
		mux_at = 0;
	}
	for (i = 0; i < ports; i++) {
		snprintf(label, sizeof(label), "SWP%d", i);
		add_pin(DPLL_PIN_TYPE_SYNCE_ETH_PORT, label, mux);
		bind_pin(pin_count - 1, devs[i]);
	}
	if (external)
		add_pin(DPLL_PIN_TYPE_EXT, "BITS1", false);
}

static int clock_comes(void)
{
	mutex_lock(&state_lock);
	status = DPLL_LOCK_STATUS_UNLOCKED;
	chosen = active = mux_at = -1;
	memset(pins, 0, sizeof(pins));
	mutex_unlock(&state_lock);
	eec = add_device(0, DPLL_TYPE_EEC, &eec);
	if (!eec)
		return -ENODEV;
	if (pps)
		ppsdev = add_device(1, DPLL_TYPE_PPS, &ppsdev);
	add_pins();
	mutex_lock(&state_lock);
	ending = false;
	since = jiffies;
	tick_now();
	mutex_unlock(&state_lock);
	return 0;
}

static void clock_goes(void)
{
	int i;

	if (!eec)
		return;
	mutex_lock(&state_lock);
	ending = true;
	mutex_unlock(&state_lock);
	cancel_delayed_work_sync(&tick);
	for (i = 0; i < pin_count; i++) {
		bind_pin(i, NULL);
		if (pins[i].on_mux)
			dpll_pin_on_pin_unregister(pins[mux_at].pin, pins[i].pin, &on_mux_ops, &pins[i]);
	}
	remove_device(&ppsdev);
	remove_device(&eec);
	for (i = 0; i < pin_count; i++)
		dpll_pin_put(pins[i].pin);
	mutex_lock(&state_lock);
	pin_count = 0;
	chosen = active = -1;
	mutex_unlock(&state_lock);
}

/* --- debugfs --- */

static const char *followed(void)
{
	int i = active == mux_at ? through_mux() : active;

	if (active < 0 || i < 0)
		return "nothing";
	return pins[i].dev ? pins[i].dev->name : pins[i].label;
}

static int state_show(struct seq_file *out, void *data)
{
	mutex_lock(&state_lock);
	seq_printf(out, "status %d\nfollows %s\nsettings %lu\nrefused %lu\nmoves %lu\n", status, followed(), settings, refused,
		   moves);
	mutex_unlock(&state_lock);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(state);

static int present_set(void *data, u64 value)
{
	int ret = 0;

	mutex_lock(&presence_lock);
	if (value == 2)
		remove_device(&ppsdev);
	else if (!value)
		clock_goes();
	else if (!eec)
		ret = clock_comes();
	mutex_unlock(&presence_lock);
	return ret;
}
DEFINE_DEBUGFS_ATTRIBUTE(present_fops, NULL, present_set, "%llu\n");

static int hand_set(void *data, u64 i)
{
	int ret = -EINVAL;

	mutex_lock(&state_lock);
	if (i < pin_count && !pins[i].on_mux) {
		put_state(i, mode == DPLL_MODE_MANUAL ? DPLL_PIN_STATE_CONNECTED : DPLL_PIN_STATE_SELECTABLE);
		pins[i].prio = 0;
		ret = 0;
	}
	mutex_unlock(&state_lock);
	return ret ? ret : dpll_pin_change_ntf(pins[i].pin);
}
DEFINE_DEBUGFS_ATTRIBUTE(hand_fops, NULL, hand_set, "%llu\n");

static ssize_t bind_write(struct file *file, const char __user *from, size_t size, loff_t *at)
{
	char line[40] = {}, name[IFNAMSIZ] = {};
	struct net_device *dev = NULL;
	int i, ret;

	if (size >= sizeof(line) || copy_from_user(line, from, size) || sscanf(line, "%d %15s", &i, name) < 1)
		return -EINVAL;
	if (name[0])
		dev = dev_get_by_name(current->nsproxy->net_ns, name);
	if (name[0] && !dev)
		return -ENODEV;
	mutex_lock(&presence_lock);
	ret = bind_pin(i, dev);
	mutex_unlock(&presence_lock);
	dev_put(dev);
	return ret ? ret : size;
}

static const struct file_operations bind_fops = { .owner = THIS_MODULE, .open = simple_open, .write = bind_write };

/* --- the module --- */

static void __exit mock_exit(void)
{
	debugfs_remove_recursive(dir);
	clock_goes();
	unregister_netdevice_notifier(&netdev_nb);
	remove_ports();
}

static int __init mock_init(void)
{
	int i, ret = ports < 0 || ports > PINS_MAX - 2 ? -EINVAL : 0;

	INIT_DELAYED_WORK(&tick, tick_fn);
	for (i = 0; i < ports && !ret; i++)
		ret = add_port(i);
	if (!ret)
		ret = register_netdevice_notifier(&netdev_nb);
	if (ret) {
		remove_ports();
		return ret;
	}
	ret = clock_comes();
	if (ret) {
		unregister_netdevice_notifier(&netdev_nb);
		remove_ports();
		return ret;
	}
	dir = debugfs_create_dir("mock_clock", NULL);
	debugfs_create_file("state", 0444, dir, NULL, &state_fops);
	debugfs_create_file("present", 0200, dir, NULL, &present_fops);
	debugfs_create_file("hand", 0200, dir, NULL, &hand_fops);
	debugfs_create_file("bind", 0200, dir, NULL, &bind_fops);
	return 0;
}

module_init(mock_init);
module_exit(mock_exit);
MODULE_DESCRIPTION("A clock that is not there");
MODULE_LICENSE("GPL");
