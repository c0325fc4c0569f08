-- Duty/assist controller of a pump station, written as a state machine.
--
-- Used by the Lua script block "station" of pump_control.lua. Each dollar-brace reference
-- below (comments included) is one of the block's parameters, replaced by its value
-- before the script is compiled.
--
--   idle    all pumps off; the level rising above ${start_level} m starts the duty pump
--   duty    one pump; above ${assist_level} m for ${assist_delay} s the assist pump joins
--   assist  both pumps; below ${start_level} m the assist pump stops again
--
-- A started pump runs at least ${min_run} s; below ${stop_level} m everything stops. The
-- two pumps take turns as the duty pump, so that they wear evenly. Above
-- ${alarm_level} m the port "alarm" sends true once, and false once the level is back
-- below ${start_level} m.
--
-- Wires in: level (m). Wires out: q_out (m^3/s), pumps (running pumps), state
-- (0 idle, 1 duty, 2 assist), duty (the duty pump, 1 or 2).

local IDLE, DUTY, ASSIST = 0, 1, 2

-- Globals written in init, run and on_<port> are this block's own, so every station
-- block has its own machine. Helper functions keep the shared globals as theirs: they
-- get the machine as an argument.
function init()
  machine = {
    state = IDLE,
    since = 0,         -- when the current state was entered (s)
    high_since = nil,  -- since when the level has been above the assist level
    alarm = false,
    duty = 2,          -- the duty pump
  }
end

local function enter(m, state, t)
  m.state, m.since, m.high_since = state, t, nil
end

local function step(m, t, level)
  local ran = t - m.since
  if m.state == IDLE then
    if level > ${start_level} then
      m.duty = 3 - m.duty
      enter(m, DUTY, t)
    end
  elseif level < ${stop_level} and ran >= ${min_run} then
    enter(m, IDLE, t)
  elseif m.state == DUTY then
    if level > ${assist_level} then
      m.high_since = m.high_since or t
      if t - m.high_since >= ${assist_delay} then enter(m, ASSIST, t) end
    else
      m.high_since = nil
    end
  elseif m.state == ASSIST and level < ${start_level} and ran >= ${min_run} then
    enter(m, DUTY, t)
  end
end

function run(t)
  local m, level = machine, inputs.level()
  step(m, t, level)

  local pumps = m.state == IDLE and 0 or (m.state == DUTY and 1 or 2)
  outputs.pumps(pumps)
  outputs.q_out(pumps * ${pump_flow})
  outputs.state(m.state)
  outputs.duty(m.duty)

  if not m.alarm and level > ${alarm_level} then
    m.alarm = true
    outports.alarm(true)
  elseif m.alarm and level < ${start_level} then
    m.alarm = false
    outports.alarm(false)
  end
  return ${dt}
end
