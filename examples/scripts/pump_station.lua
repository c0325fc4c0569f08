-- Duty/assist controller of a pump station, written as a state machine.
--
-- Used by the Lua script block "station" of pump_control.lua. The ${...} references are
-- the block's parameters, replaced by their values before the script is compiled.
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

-- Globals written here are this block's own: every station block has its own machine.
function init()
  state = IDLE
  since = 0        -- when the current state was entered (s)
  high_since = nil -- since when the level has been above the assist level
  alarm = false
  duty = 2
end

local function enter(new_state, t)
  state, since, high_since = new_state, t, nil
end

local function step_machine(t, level)
  local ran = t - since
  if state == IDLE then
    if level > ${start_level} then
      duty = 3 - duty
      enter(DUTY, t)
    end
  elseif level < ${stop_level} and ran >= ${min_run} then
    enter(IDLE, t)
  elseif state == DUTY then
    if level > ${assist_level} then
      high_since = high_since or t
      if t - high_since >= ${assist_delay} then enter(ASSIST, t) end
    else
      high_since = nil
    end
  elseif state == ASSIST and level < ${start_level} and ran >= ${min_run} then
    enter(DUTY, t)
  end
end

function run(t)
  local level = inputs.level()
  step_machine(t, level)

  local pumps = state == IDLE and 0 or (state == DUTY and 1 or 2)
  outputs.pumps(pumps)
  outputs.q_out(pumps * ${pump_flow})
  outputs.state(state)
  outputs.duty(duty)

  if not alarm and level > ${alarm_level} then
    alarm = true
    outports.alarm(true)
  elseif alarm and level < ${start_level} then
    alarm = false
    outports.alarm(false)
  end
  return ${dt}
end
